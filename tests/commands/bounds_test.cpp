// Commands over long and repetitive modem lists: each modem is handled once, and the
// work grows with the list, not with its square. CTest's time-out of this program is
// what catches a command that does not: 100000 modems take a fraction of a second.

#include <gtest/gtest.h>
#include <QJsonArray>
#include <algorithm>
#include <vector>

#include "command_fixture.h"

using command_test::CommandFixture;

namespace {

constexpr int modem_count = 100000;

// Modems 1..count in descending order, then every one of them again.
QJsonArray listed_twice(int count) {
    QJsonArray ids;
    for (int round = 0; round < 2; ++round) {
        for (int id = count; id >= 1; --id) {
            ids.append(id);
        }
    }
    return ids;
}

class ManyModems : public ::testing::Test {
protected:
    void SetUp() override { f.context->engine_config.settings.check_is_mine = false; }
    CommandFixture f;
};

}  // namespace

TEST_F(ManyModems, DlQueueForAllEchoesEachModemOnceInListOrder) {
    const QJsonObject all{{"action", "create"},
                          {"modem_id", listed_twice(modem_count)},
                          {"q", QJsonObject{{"m", QJsonObject{{"data", QJsonObject{{"v", 1}}}}}}}};
    const QJsonObject reply = f.run("dl_queue", QJsonObject{{"all", all}});

    ASSERT_EQ(reply.size(), modem_count + 1);
    const QJsonObject ok{{"action", "create"}, {"status", "ok"}};
    EXPECT_EQ(reply.value("1").toObject(), ok);  // created once: a second create would fail
    EXPECT_EQ(reply.value(QString::number(modem_count)).toObject(), ok);
    const QJsonObject echo = reply.value("all").toObject();
    const QJsonArray processed = echo.value("modem_id").toArray();
    ASSERT_EQ(processed.size(), modem_count);
    EXPECT_EQ(processed.first().toInt(), modem_count);
    EXPECT_EQ(processed.last().toInt(), 1);
    EXPECT_EQ(echo.value("action"), QJsonValue("create"));

    // Every modem now has queue "q" in status NONE: the queue-list table holds them all.
    const QJsonObject listing = f.run("dl_queue", QJsonObject{{"mode", "queue_list"}, {"admin", true}});
    const QJsonObject groups = listing.value("all").toObject().value("dl").toObject().value("q").toObject();
    const QJsonArray none = groups.value("NONE").toArray();
    ASSERT_EQ(none.size(), modem_count);
    std::vector<int> ids;
    for (const QJsonValue& id : none) {
        ids.push_back(id.toInt());
    }
    std::sort(ids.begin(), ids.end());
    EXPECT_EQ(std::adjacent_find(ids.begin(), ids.end()), ids.end());
    EXPECT_EQ(ids.front(), 1);
    EXPECT_EQ(ids.back(), modem_count);
}

TEST_F(ManyModems, RepublicationAndListingsAnswerEachModemOnce) {
    const QJsonObject roll = f.run("request_roll", QJsonObject{{"modem_id", listed_twice(modem_count)}});
    EXPECT_EQ(roll.size(), modem_count);
    const QJsonObject values = f.run("get_eav_value", QJsonObject{{"modem_id", listed_twice(modem_count)}});
    EXPECT_TRUE(values.isEmpty());
    f.run("get_dl_msg", QJsonObject{{"modem_id", listed_twice(modem_count)}});
    ASSERT_EQ(f.messages->downlinks().queries.size(), 1u);
    EXPECT_EQ(f.messages->downlinks().queries[0].modem_id.size(), modem_count);
}

// Keys "1" and "01" name the same modem, which is handled once.
TEST(ModemsNamedTwice, DlQueueKeysOfOneModem) {
    CommandFixture f;
    const QJsonObject create{{"action", "create"}, {"q", QJsonObject()}};
    const QJsonObject reply = f.run("dl_queue", QJsonObject{{"1", create}, {"01", create}});
    EXPECT_EQ(reply, (QJsonObject{{"1", QJsonObject{{"action", "create"}, {"status", "ok"}}}}));
}

TEST(ModemsNamedTwice, SendDownlinkSendsOncePerModem) {
    CommandFixture f;
    const QJsonObject reply = f.run(
        "send_dl_msg", QJsonObject{{"modem_id", QJsonArray{2, 1, 2, 2}}, {"data", QJsonObject{{"cmd", 1}}}});
    EXPECT_EQ(reply.keys(), (QStringList{"1", "2"}));
    ASSERT_EQ(f.engine->sent.size(), 2u);
    EXPECT_EQ(f.engine->sent[0].modem_id, 2);
    EXPECT_EQ(f.engine->sent[1].modem_id, 1);
}
