#include <gtest/gtest.h>

#include <QJsonArray>
#include <QJsonObject>

#include "commands/ReparseModem.h"
#include "history_fakes.h"

using namespace history_fakes;

TEST(ReparseModem, KeepsOnlyCalibAndWebapp) {
    fixture f;
    f.own(1);
    f.own(2);
    f.state->save(1, {{"calib", QJsonObject{{"k", 1}}}, {"common", "x"}, {"counter", 5}});
    f.state->save(2, {{"calib", 1}, {"webapp", QJsonArray{1}}, {"common", "y"}});

    const QJsonObject reply = ReparseModem(f.context).execute(command({{"modem_id", QJsonArray{1, 2}}}));

    EXPECT_EQ(reply, (QJsonObject{{"1", "ok"}, {"2", "ok"}}));
    EXPECT_EQ(f.state->state(1), (QJsonObject{{"calib", QJsonObject{{"k", 1}}}}));
    EXPECT_EQ(f.state->state(2), (QJsonObject{{"calib", 1}, {"webapp", QJsonArray{1}}}));
    EXPECT_EQ(f.state->mark(1), 1);
    EXPECT_EQ(f.state->mark(2), 1);
    EXPECT_TRUE(f.engine.commands.empty());  // "request" absent
}

TEST(ReparseModem, StateWithNeitherEntryIsRemoved) {
    fixture f;
    f.own(3);
    f.own(4);
    f.state->save(3, {{"common", "x"}});
    ReparseModem(f.context).execute(command({{"modem_id", QJsonArray{3, 4}}, {"request", false}}));
    EXPECT_TRUE(f.state->state(3).isEmpty());
    EXPECT_TRUE(f.state->state(4).isEmpty());
    EXPECT_EQ(f.state->mark(3), 1);
    EXPECT_EQ(f.state->mark(4), 1);
    EXPECT_TRUE(f.engine.commands.empty());
}

TEST(ReparseModem, ForeignModemIsLeftAlone) {
    fixture f;
    f.foreign(5);
    f.state->save(5, {{"common", "x"}});
    const QJsonObject reply =
        ReparseModem(f.context).execute(command({{"modem_id", QJsonArray{5}}, {"request", true}}));
    EXPECT_TRUE(reply.isEmpty());
    EXPECT_EQ(f.state->state(5), (QJsonObject{{"common", "x"}}));
    EXPECT_EQ(f.state->mark(5), 0);
    EXPECT_TRUE(f.engine.commands.empty());  // nothing accepted, nothing requested
}

TEST(ReparseModem, RequestWithoutRangeAsksForEverythingUpToNow) {
    fixture f;
    f.own(8);
    f.own(6);
    ReparseModem(f.context).execute(command({{"modem_id", QJsonArray{8, 6}}, {"request", true}}));

    ASSERT_EQ(f.engine.commands.size(), 1u);
    const sent_command& sent = f.engine.commands[0];
    EXPECT_EQ(sent.type, "get_ul_history");
    EXPECT_EQ(sent.routing_key, "cmd.in.netcore");
    const QJsonObject& data = sent.data;
    EXPECT_EQ(data.value("api_key").toString(), "key-1");
    EXPECT_EQ(data.value("ids").toArray(), (QJsonArray{8, 6}));
    EXPECT_EQ(data.value("from").toDouble(), 0);
    EXPECT_NEAR(data.value("to").toDouble(), double(QDateTime::currentSecsSinceEpoch()), 5);
    EXPECT_EQ(data.value("limit").toDouble(), 10000000);
    EXPECT_EQ(data.value("routing_key_prefix").toString(), "history.quillon.0");
    EXPECT_EQ(data.size(), 6);
}

TEST(ReparseModem, RequestCarriesTheGivenRange) {
    fixture f;
    f.own(1);
    ReparseModem(f.context).execute(
        command({{"modem_id", QJsonArray{1}}, {"from", 1000}, {"to", 2000}, {"request", true}}));
    ASSERT_EQ(f.engine.commands.size(), 1u);
    EXPECT_EQ(f.engine.commands[0].data.value("from").toDouble(), 1000);
    EXPECT_EQ(f.engine.commands[0].data.value("to").toDouble(), 2000);
}

TEST(ReparseModem, ReparseDevicesResetsAndRequests) {
    fixture f;
    f.state->save(12, {{"webapp", "w"}, {"x", 1}});
    const QDateTime from = QDateTime::fromSecsSinceEpoch(50, Qt::UTC);
    const QDateTime to = QDateTime::fromSecsSinceEpoch(60, Qt::UTC);
    EXPECT_TRUE(ReparseModem(f.context).reparseDevices({12}, from, to, true));
    EXPECT_EQ(f.state->state(12), (QJsonObject{{"webapp", "w"}}));
    ASSERT_EQ(f.engine.commands.size(), 1u);
    EXPECT_EQ(f.engine.commands[0].data.value("ids").toArray(), QJsonArray{12});
    EXPECT_EQ(f.engine.commands[0].data.value("to").toDouble(), 60);
}
