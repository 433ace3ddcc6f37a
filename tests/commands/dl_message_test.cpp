#include <gtest/gtest.h>
#include <QJsonArray>

#include "command_fixture.h"

using command_test::CommandFixture;

namespace {

QJsonObject send_body(const QJsonValue& timeout) {
    QJsonObject body{{"modem_id", QJsonArray{1}}, {"data", QJsonObject{{"cmd", "open"}}}};
    if (!timeout.isUndefined()) {
        body["timeout"] = timeout;
    }
    return body;
}

int sent_timeout(const QJsonValue& timeout) {
    CommandFixture f;
    f.run("send_dl_msg", send_body(timeout));
    return f.engine->sent.empty() ? -1 : f.engine->sent.front().timeout;
}

}  // namespace

// ---- send_dl_msg ---------------------------------------------------------------------

TEST(SendDownlinkMessage, TimeoutZeroOrAboveThirtyDaysBecomesThirtyDays) {
    EXPECT_EQ(sent_timeout(0), 2592000);
    EXPECT_EQ(sent_timeout(QJsonValue()), 2592000);  // absent reads as 0
    EXPECT_EQ(sent_timeout(2592000), 2592000);
    EXPECT_EQ(sent_timeout(2592001), 2592000);
    EXPECT_EQ(sent_timeout(60), 60);
    EXPECT_EQ(sent_timeout(-5), -5);
}

TEST(SendDownlinkMessage, FailsWithoutModemsOrData) {
    CommandFixture f;
    const QJsonObject fail{{"status", "fail"}};
    EXPECT_EQ(f.run("send_dl_msg", QJsonObject{{"modem_id", QJsonArray{1}}}), fail);
    EXPECT_EQ(f.run("send_dl_msg", QJsonObject{{"data", QJsonObject()}}), fail);
    EXPECT_EQ(f.run("send_dl_msg", QJsonDocument(QJsonArray{1, 2})), fail);
    EXPECT_TRUE(f.engine->sent.empty());
}

TEST(SendDownlinkMessage, EachOwnModemIsSentInOrderUnderItsId) {
    CommandFixture f;
    const QJsonObject body{{"modem_id", QJsonArray{2, 9, "x", 3.5, 1}},
                           {"data", QJsonObject{{"cmd", "open"}}},
                           {"f_ack", 0},
                           {"user_id", "u1"}};
    const QJsonObject reply = f.run("send_dl_msg", body);
    EXPECT_EQ(reply.keys(), (QStringList{"1", "2"}));
    ASSERT_EQ(f.engine->sent.size(), 2u);
    EXPECT_EQ(f.engine->sent[0].modem_id, 2);
    EXPECT_EQ(f.engine->sent[1].modem_id, 1);
    EXPECT_EQ(f.engine->sent[0].f_ack, 0);
    EXPECT_EQ(f.engine->sent[0].user_id, "u1");
    EXPECT_EQ(f.engine->sent[0].data, (QJsonObject{{"cmd", "open"}}));
    EXPECT_EQ(reply.value("1").toObject().value("ok"), QJsonValue(true));
    EXPECT_NE(reply.value("1").toObject().value("bd_id"), reply.value("2").toObject().value("bd_id"));
}

TEST(SendDownlinkMessage, ARefusedModemGetsItsErrorAndTheOthersAreSent) {
    CommandFixture f;
    f.engine->refused = {2};
    const QJsonObject body{{"modem_id", QJsonArray{2, 1}}, {"data", QJsonObject{{"cmd", "x"}}}};
    const QJsonObject reply = f.run("send_dl_msg", body);
    EXPECT_EQ(reply.keys(), (QStringList{"1", "2"}));
    EXPECT_EQ(reply.value("2").toObject(),
              (QJsonObject{{"ok", false}, {"error", "mbus downlink: \"address\" must be 0 to 250"}}));
    EXPECT_EQ(reply.value("1").toObject().value("ok"), QJsonValue(true));
    ASSERT_EQ(f.engine->sent.size(), 1u);
    EXPECT_EQ(f.engine->sent[0].modem_id, 1);
}

TEST(SendDownlinkMessage, AStoreFailureStillEndsTheWholeCommand) {
    CommandFixture f;
    f.engine->store_down = true;
    const QJsonObject body{{"modem_id", QJsonArray{2, 1}}, {"data", QJsonObject{{"cmd", "x"}}}};
    EXPECT_THROW(f.run("send_dl_msg", body), std::exception);
}

TEST(SendDownlinkMessage, StatusOutsideZeroToThreeIsStoredAsPendingAndLogged) {
    CommandFixture f;
    QJsonObject body{{"modem_id", QJsonArray{1}}, {"data", QJsonObject{{"cmd", "open"}}}, {"status", 7}};
    const QJsonObject reply = f.run("send_dl_msg", body);
    ASSERT_EQ(f.engine->sent.size(), 1u);
    EXPECT_EQ(f.engine->sent[0].dl_status, model::PENDING);
    const QString db_id = reply.value("1").toObject().value("bd_id").toString();
    EXPECT_EQ(f.messages->dl().get(db_id).dl_status, model::PENDING);
    const QJsonObject status = f.run("status_dl_msg", QJsonObject{{"db_id", QJsonArray{db_id}}});
    EXPECT_EQ(status.value(db_id).toObject().value("dl_status"), QJsonValue("PENDING"));
    EXPECT_TRUE(f.log_text().contains("send_dl_msg: \"status\" 7 is not a dl status (0 to 3), PENDING taken"))
        << f.log_text().toStdString();

    body["status"] = 1;
    f.run("send_dl_msg", body);
    ASSERT_EQ(f.engine->sent.size(), 2u);
    EXPECT_EQ(f.engine->sent[1].dl_status, model::WAIT_DATA);
}

TEST(SendDownlinkMessage, NoOwnModemGivesAnEmptyReply) {
    CommandFixture f;
    const QJsonObject data{{"cmd", 1}};
    EXPECT_EQ(f.run("send_dl_msg", QJsonObject{{"modem_id", QJsonArray{9, 4}}, {"data", data}}),
              QJsonObject());
    EXPECT_EQ(f.run("send_dl_msg", QJsonObject{{"modem_id", 1}, {"data", data}}), QJsonObject());
    EXPECT_TRUE(f.engine->sent.empty());
}

// ---- status_dl_msg -------------------------------------------------------------------

TEST(StatusDownlinkMessage, KnownIdGivesTheMessageUnknownIdTheStoreText) {
    CommandFixture f;
    const QJsonObject sent = f.run("send_dl_msg", send_body(60));
    const QString db_id = sent.value("1").toObject().value("bd_id").toString();
    ASSERT_FALSE(db_id.isEmpty());

    const QJsonObject reply = f.run("status_dl_msg", QJsonObject{{"db_id", QJsonArray{db_id, "nope"}}});
    EXPECT_EQ(reply.size(), 2);
    const QJsonObject message = reply.value(db_id).toObject();
    EXPECT_EQ(message.value("modem_id"), QJsonValue(1));
    EXPECT_EQ(message.value("timeout"), QJsonValue(60));
    EXPECT_EQ(message.value("dl_status"), QJsonValue("PENDING"));
    EXPECT_EQ(reply.value("nope"), QJsonValue("dl message nope not found"));
}

TEST(StatusDownlinkMessage, FailsWithoutIds) {
    CommandFixture f;
    EXPECT_EQ(f.run("status_dl_msg", QJsonObject{{"id", QJsonArray{"a"}}}),
              (QJsonObject{{"status", "fail"}}));
    EXPECT_EQ(f.run("status_dl_msg", QJsonObject{{"db_id", "a"}}), QJsonObject());
}

// ---- get_dl_msg ----------------------------------------------------------------------

TEST(GetDownlinkMessage, LimitDefaultsAndCap) {
    CommandFixture f;
    f.run("get_dl_msg", QJsonObject{{"modem_id", QJsonArray{1}}, {"limit", 500000}});
    f.run("get_dl_msg", QJsonObject{{"modem_id", QJsonArray{1}}});
    f.run("get_dl_msg", QJsonObject{{"limit", 0}});
    f.run("get_dl_msg", QJsonObject{{"limit", "10"}});
    const auto& queries = f.messages->downlinks().queries;
    ASSERT_EQ(queries.size(), 4u);
    EXPECT_EQ(queries[0].limit, 300000);
    EXPECT_EQ(queries[1].limit, 3000);
    EXPECT_EQ(queries[2].limit, 0);
    EXPECT_EQ(queries[3].limit, 3000);
}

TEST(GetDownlinkMessage, TimeWindowDefaultsToEpochUntilNow) {
    CommandFixture f;
    const QDateTime before = QDateTime::currentDateTimeUtc();
    f.run("get_dl_msg", QJsonObject());
    f.run("get_dl_msg", QJsonObject{{"from", 100}, {"to", 200}});
    const auto& queries = f.messages->downlinks().queries;
    ASSERT_EQ(queries.size(), 2u);
    EXPECT_EQ(queries[0].from.toSecsSinceEpoch(), 0);
    EXPECT_GE(queries[0].to, before.addSecs(-1));
    EXPECT_LE(queries[0].to, QDateTime::currentDateTimeUtc().addSecs(1));
    EXPECT_EQ(queries[1].from, QDateTime::fromSecsSinceEpoch(100, Qt::UTC));
    EXPECT_EQ(queries[1].to, QDateTime::fromSecsSinceEpoch(200, Qt::UTC));
}

TEST(GetDownlinkMessage, ForeignModemsLeaveAnEmptyListThatIsStillQueried) {
    CommandFixture f;
    EXPECT_EQ(f.run("get_dl_msg", QJsonObject{{"modem_id", QJsonArray{9, 4}}}), QJsonObject());
    ASSERT_EQ(f.messages->downlinks().queries.size(), 1u);
    EXPECT_TRUE(f.messages->downlinks().queries[0].modem_id.isEmpty());
}

TEST(GetDownlinkMessage, ListsPerModemAndSelectsNotAcknowledged) {
    CommandFixture f;
    f.run("send_dl_msg", QJsonObject{{"modem_id", QJsonArray{1, 2}}, {"data", QJsonObject()}});
    f.run("send_dl_msg", QJsonObject{{"modem_id", QJsonArray{1}}, {"data", QJsonObject()}});
    const QJsonObject all = f.run("get_dl_msg", QJsonObject{{"modem_id", QJsonArray{1, 2, 9}}});
    EXPECT_EQ(all.keys(), (QStringList{"1", "2"}));
    ASSERT_EQ(all.value("1").toArray().size(), 2);
    EXPECT_EQ(all.value("2").toArray().size(), 1);

    const QString executed = all.value("1").toArray().at(0).toObject().value("db_id").toString();
    f.messages->dl().set_status(executed, model::EXECUTED);
    const QJsonObject pending =
        f.run("get_dl_msg", QJsonObject{{"modem_id", QJsonArray{1, 2}}, {"not_acked", true}});
    EXPECT_EQ(pending.value("1").toArray().size(), 1);
    EXPECT_EQ(f.messages->downlinks().not_acked, (std::vector<bool>{false, true}));
}
