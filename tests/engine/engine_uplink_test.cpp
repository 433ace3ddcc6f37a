#include <QDateTime>
#include <QEventLoop>
#include <QSet>
#include <QTimer>

#include "engine_fixture.h"

namespace {
model::dev_event event_with_code(int code) {
    model::dev_event event;
    event.event_code = code;
    event.message = "power low";
    event.timestamp = QDateTime::fromSecsSinceEpoch(1700000000, Qt::UTC);
    return event;
}

model::dev_value value_named(const QString& obis, double number) {
    model::dev_value value;
    value.obis_code = obis;
    value.tag = "t";
    value.value = number;
    value.timestamp = QDateTime::fromSecsSinceEpoch(1700000000, Qt::UTC);
    return value;
}
}  // namespace

TEST_F(EngineFixture, OnlyModemsOfThisInstanceAreAccepted) {
    m_config.instances = 3;
    m_config.position = 1;
    make_engine();
    m_engine->onUlReceived(uplink(4), 1);
    m_engine->onUlReceived(uplink(3), 2);
    m_engine->onUlReceived(uplink(5), 3);
    m_engine->onUlReceived(uplink(-2), 4);

    EXPECT_EQ(m_receiver->m_acked, (std::vector<uint64_t>{1}));
    EXPECT_EQ(m_receiver->m_rejected, (std::vector<uint64_t>{2, 3, 4}));
    EXPECT_EQ(stored_roll(4)[4].size(), 1u);
    EXPECT_TRUE(stored_roll(3).empty());
}

TEST_F(EngineFixture, ProtocolIsCaseSensitiveButHardwarePatternIsNot) {
    make_engine();
    m_engine->onUlReceived(uplink(77, "PROTO7", "X"), 1);
    m_engine->onUlReceived(uplink(77, "proto7", "x"), 2);
    m_engine->onUlReceived(uplink(77, "proto7", "XY"), 3);  // the pattern must match as a whole
    EXPECT_EQ(m_receiver->m_acked, (std::vector<uint64_t>{2}));
    EXPECT_EQ(m_receiver->m_rejected, (std::vector<uint64_t>{1, 3}));
}

TEST_F(EngineFixture, AcceptedUplinkIsStoredBeforeItIsAcknowledged) {
    make_engine();
    size_t stored_at_ack = 0;
    m_receiver->m_on_ack = [&](uint64_t) { stored_at_ack = stored_roll(77)[77].size(); };
    m_engine->onUlReceived(uplink(77), 9);

    ASSERT_EQ(m_receiver->m_acked, (std::vector<uint64_t>{9}));
    EXPECT_EQ(stored_at_ack, 1u);
    const auto stored = stored_roll(77)[77].front();
    // Fields taken from the uplink over whatever the driver set.
    EXPECT_EQ(stored.station_id, 12);
    EXPECT_EQ(stored.bs_timezone_offset, 3);
    EXPECT_EQ(stored.payload, QByteArray::fromHex("0a0b"));
    EXPECT_EQ(stored.time_detected.toSecsSinceEpoch(), 1700000000);
    const qint64 ttl_expected = QDateTime::currentSecsSinceEpoch() + 365 * 86400;
    EXPECT_NEAR(stored.ttl.toSecsSinceEpoch(), ttl_expected, 5);
    EXPECT_TRUE(log_text().contains("instance: 0 message tag: 9 accepted: {"));
}

TEST_F(EngineFixture, RadioSummaryIsKeptAsModemState) {
    make_engine();
    m_engine->onUlReceived(uplink(77), 1);
    const QJsonObject common = state()->get(77, "common").toObject();
    EXPECT_EQ(common.value("station_id").toInt(), 12);
    EXPECT_EQ(common.value("dl_phy").toString(), "dl_phy2");
    EXPECT_FALSE(common.contains("modem_id"));  // not one of the summary's members
    EXPECT_FALSE(common.contains("payload"));
}

TEST_F(EngineFixture, RecordsThenMessageArePublishedToEachClientInOrder) {
    clients()->set_device(77, {"proto7", "X", {"c1", "c2"}});
    m_driver->m_records = {event_with_code(5), value_named("energy", 12.5)};
    make_engine();
    m_engine->onUlReceived(uplink(77), 1);

    const std::vector<QString> expected = {"c1.0.ul_eav.X.event.5.77",  "c1.0.ul_eav.X.t.energy.77",
                                           "c1.0.ul_roll.X.t.null.77",  "c2.1.ul_eav.X.event.5.77",
                                           "c2.1.ul_eav.X.t.energy.77", "c2.1.ul_roll.X.t.null.77"};
    ASSERT_EQ(m_publisher->m_published.size(), expected.size());
    for (size_t i = 0; i < expected.size(); ++i) {
        EXPECT_EQ(m_publisher->m_published[i].route, expected[i]);
        EXPECT_EQ(m_publisher->m_published[i].mime, "text/plain");
    }
    // Unwrapped: the record's own JSON and nothing else.
    EXPECT_FALSE(m_publisher->m_published[2].body.contains("msg_type"));
    EXPECT_EQ(m_publisher->m_published[1].body.value("obis_code").toString(), "energy");
    EXPECT_EQ(m_publisher->m_published[1].body.value("modem_id").toInt(), 77);
    // Each client gets the same bodies.
    for (size_t i = 0; i < 3; ++i) {
        EXPECT_EQ(m_publisher->m_published[i].body, m_publisher->m_published[i + 3].body) << i;
    }
}

TEST_F(EngineFixture, WrappedPublicationsCarryTheirOwnCommandIds) {
    m_config.settings.ul_client_send_wrap = true;
    m_driver->m_records = {value_named("energy", 1)};
    make_engine();
    m_engine->onUlReceived(uplink(77), 1);
    clients()->set_device(78, {"proto7", "X", {"c1", "c2"}});
    m_engine->onUlReceived(uplink(78), 2);

    ASSERT_EQ(m_publisher->m_published.size(), 6u);
    QSet<QString> ids;
    for (const auto& published : m_publisher->m_published) {
        ids.insert(published.body.value("cmd_id").toString());
    }
    EXPECT_EQ(ids.size(), 6);  // one per publication, also across the clients of one uplink
    EXPECT_EQ(m_publisher->m_published[4].route, "c2.1.ul_eav.X.t.energy.78");
    EXPECT_EQ(m_publisher->m_published[4].body.value("data"), m_publisher->m_published[2].body.value("data"));
    const auto& value = m_publisher->m_published[0];
    const auto& roll = m_publisher->m_published[1];
    EXPECT_EQ(value.route, "null.0.ul_eav.X.t.energy.77");
    EXPECT_EQ(value.body.value("msg_type").toString(), "quillon_ul_client_eav_value");
    EXPECT_EQ(roll.body.value("msg_type").toString(), "quillon_ul_client_roll");
    EXPECT_EQ(roll.body.value("data").toObject().value("tag").toString(), "t");
    EXPECT_NE(value.body.value("cmd_id").toString(), roll.body.value("cmd_id").toString());
    EXPECT_TRUE(value.body.value("cmd_id").toString().startsWith('{'));
}

TEST_F(EngineFixture, WithClientSendOffNothingIsPublishedButAllIsStored) {
    m_config.settings.ul_client_send = false;
    m_driver->m_records = {value_named("energy", 1)};
    make_engine();
    m_engine->onUlReceived(uplink(77), 1);
    EXPECT_TRUE(m_publisher->m_published.empty());
    EXPECT_EQ(stored_roll(77)[77].size(), 1u);
    EXPECT_FALSE(state()->get(77, "common").isUndefined());
}

TEST_F(EngineFixture, EventsAreSavedBeforeValuesAndBothAreQueryable) {
    m_driver->m_records = {value_named("energy", 3), event_with_code(5), value_named("volume", 4)};
    make_engine();
    m_engine->onUlReceived(uplink(77), 1);

    model::value_query query;
    query.modem_id = {77};
    query.from = QDateTime::fromSecsSinceEpoch(0, Qt::UTC);
    query.to = QDateTime::currentDateTimeUtc().addDays(1);
    model::per_modem<model::dev_value> values;
    model::per_modem<model::dev_event> events;
    m_plugins->eav_database()->records().get_values(values, query);
    m_plugins->eav_database()->records().get_events(events, query);
    EXPECT_EQ(values[77].size(), 2u);
    ASSERT_EQ(events[77].size(), 1u);
    EXPECT_EQ(events[77].front().event_code, 5);
}

TEST_F(EngineFixture, UnknownMessageTypeIsRejectedAndNothingStored) {
    make_engine();
    QJsonObject message = uplink(77);
    message["msg_type"] = "ul_other";
    m_engine->onUlReceived(message, 5);
    m_engine->onUlReceived(QJsonObject(), 6);
    EXPECT_EQ(m_receiver->m_rejected, (std::vector<uint64_t>{5, 6}));
    EXPECT_TRUE(stored_roll(77).empty());
    EXPECT_EQ(m_driver->m_controller_calls, 0);
}

TEST_F(EngineFixture, DriverFailureRejectsOnlyThatMessage) {
    m_driver->m_throw_for_modem = 13;
    make_engine();
    m_engine->onUlReceived(uplink(13), 1);
    m_engine->onUlReceived(uplink(77), 2);
    EXPECT_EQ(m_receiver->m_rejected, (std::vector<uint64_t>{1}));
    EXPECT_EQ(m_receiver->m_acked, (std::vector<uint64_t>{2}));
    const QString log = log_text();
    EXPECT_TRUE(log.contains("onUlReceived throw catch. Std::exception: boom Message_tag: 1 Message: {"));
    EXPECT_TRUE(log.contains("Parsed message: {"));
}

TEST_F(EngineFixture, ControllerHookRunsAfterAcceptedMessagesAndOnTimerFailuresAreLogged) {
    m_config.controller_period = 10;
    make_engine();
    m_engine->onUlReceived(uplink(77), 1);
    EXPECT_EQ(m_driver->m_controller_calls, 1);

    m_driver->m_controller_throws = true;
    QEventLoop loop;
    QTimer::singleShot(60, &loop, &QEventLoop::quit);
    loop.exec();
    EXPECT_GT(m_driver->m_controller_calls, 1);
    EXPECT_TRUE(log_text().contains("instance: 0controller by timer exception"));
}
