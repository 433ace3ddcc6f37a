#include <QDateTime>

#include "engine_fixture.h"

namespace {
QJsonObject heartbeat(int modem) {
    return QJsonObject{
        {"msg_type", "ul_hb"}, {"modem_id", modem}, {"protocol", "proto7"},        {"hw_type", "X"},
        {"payload", "0102"},   {"iterator", 5},     {"time_detected", 1900000000}, {"temperature", 21.5},
        {"voltage", 3.6}};
}

QJsonObject report(const QString& type, int modem, const QString& status_id) {
    return QJsonObject{{"msg_type", type}, {"modem_id", modem}, {"status_id", status_id}};
}
}  // namespace

TEST_F(EngineFixture, HeartbeatIsStoredAndPublishedButRejected) {
    make_engine();
    m_engine->onUlReceived(heartbeat(77), 3);

    EXPECT_EQ(m_receiver->m_rejected, (std::vector<uint64_t>{3}));
    EXPECT_TRUE(m_receiver->m_acked.empty());
    EXPECT_FALSE(log_text().contains("accepted:"));

    auto roll = stored_roll(77)[77];
    ASSERT_EQ(roll.size(), 1u);
    const auto& stored = roll.front();
    // MD5(01 02 | 4d000000 | 05000000 | 00b33f71), halves xor'ed (worked out with hashlib).
    EXPECT_EQ(stored.unique_id, 2148433767672572442LL);
    EXPECT_EQ(stored.tag, "system.heartbeat");
    EXPECT_EQ(stored.parse_status, "parsed");
    EXPECT_EQ(stored.timestamp.toSecsSinceEpoch(), 1900000000);
    EXPECT_NEAR(stored.ttl.toSecsSinceEpoch(), QDateTime::currentSecsSinceEpoch() + 30 * 86400, 5);

    model::value_query query;
    query.modem_id = {77};
    query.from = QDateTime::fromSecsSinceEpoch(0, Qt::UTC);
    query.to = QDateTime::fromSecsSinceEpoch(1900000000, Qt::UTC);
    model::per_modem<model::dev_value> values;
    m_plugins->eav_database()->records().get_values(values, query);
    ASSERT_EQ(values[77].size(), 2u);
    for (const auto& value : values[77]) {
        EXPECT_EQ(value.ttl.toSecsSinceEpoch(), 1900000000 + 90 * 86400);
        EXPECT_EQ(value.message_id, "1dd0c520f993ea1a");
        EXPECT_EQ(value.tag, "system.heartbeat");
    }

    // Published as values "temp" then "voltage", then the message, to the client "null".
    ASSERT_EQ(m_publisher->m_published.size(), 3u);
    EXPECT_EQ(m_publisher->m_published[0].route, "null.0.ul_eav.X.system.heartbeat.temp.77");
    EXPECT_DOUBLE_EQ(m_publisher->m_published[0].body.value("value").toDouble(), 21.5);
    EXPECT_EQ(m_publisher->m_published[1].route, "null.0.ul_eav.X.system.heartbeat.voltage.77");
    EXPECT_EQ(m_publisher->m_published[2].route, "null.0.ul_roll.X.system.heartbeat.null.77");

    const QJsonObject hb_state = state()->get(77, "heartbeat").toObject();
    EXPECT_DOUBLE_EQ(hb_state.value("voltage").toDouble(), 3.6);
}

class EngineReports : public EngineFixture {
protected:
    QString store_dl(int status, bool raw) {
        model::dl_message message;
        message.modem_id = 77;
        message.dl_status = status;
        message.timestamp = QDateTime::currentDateTimeUtc();
        if (raw) {
            message.data["raw_payload"] = "0a";
        }
        messages()->dl().save(message);
        return message.db_id;
    }
    int status_of(const QString& id) { return messages()->dl().get(id).dl_status; }
};

TEST_F(EngineReports, RawDownlinkFollowsSuccessAndFaultReports) {
    clients()->set_device(77, {"proto7", "X", {}});
    m_driver->m_needs_dl = true;
    make_engine();
    const QString pending = store_dl(model::PENDING, true);
    const QString waiting = store_dl(model::WAIT_DATA, true);
    const QString timed_out = store_dl(model::TIMEOUT, true);
    const QString queued = store_dl(model::PENDING, true);

    m_engine->onUlReceived(report("dl_success", 77, pending), 1);
    m_engine->onUlReceived(report("dl_fault", 77, waiting), 2);
    m_engine->onUlReceived(report("dl_success", 77, timed_out), 3);
    m_engine->onUlReceived(report("dl_queued", 77, queued), 4);
    m_engine->onUlReceived(report("dl_inprocess", 77, queued), 5);

    EXPECT_EQ(status_of(pending), model::EXECUTED);
    EXPECT_EQ(status_of(waiting), model::TIMEOUT);
    EXPECT_EQ(status_of(timed_out), model::TIMEOUT);
    EXPECT_EQ(status_of(queued), model::PENDING);
    EXPECT_EQ(m_receiver->m_acked, (std::vector<uint64_t>{1, 2, 3, 4, 5}));
}

TEST_F(EngineReports, DriverBuiltDownlinkTakesTheDriversStatus) {
    clients()->set_device(77, {"proto7", "X", {}});
    m_driver->m_needs_dl = true;
    m_driver->m_new_status = model::WAIT_DATA;
    make_engine();
    const QString id = store_dl(model::PENDING, false);
    m_engine->onUlReceived(report("dl_queued", 77, id), 1);
    EXPECT_EQ(status_of(id), model::WAIT_DATA);
}

TEST_F(EngineReports, ReportsForForeignModemsAreRejectedUnlessTheCheckIsOff) {
    clients()->set_device(77, {"other", "X", {}});
    m_driver->m_needs_dl = true;
    make_engine();
    const QString id = store_dl(model::PENDING, true);
    m_engine->onUlReceived(report("dl_success", 77, id), 1);
    EXPECT_EQ(m_receiver->m_rejected, (std::vector<uint64_t>{1}));
    EXPECT_EQ(status_of(id), model::PENDING);
}

TEST_F(EngineReports, ReportsSkipTheDriverCheckWhenCheckIsMineIsOff) {
    clients()->set_device(77, {"other", "X", {}});
    m_config.settings.check_is_mine = false;
    m_driver->m_needs_dl = true;
    make_engine();
    const QString id = store_dl(model::PENDING, true);
    m_engine->onUlReceived(report("dl_success", 77, id), 1);
    EXPECT_EQ(m_receiver->m_acked, (std::vector<uint64_t>{1}));
    EXPECT_EQ(status_of(id), model::EXECUTED);
}

TEST_F(EngineReports, UnknownDownlinkIdIsLoggedWithTheStoresTextAndRejected) {
    clients()->set_device(77, {"proto7", "X", {}});
    m_driver->m_needs_dl = true;
    make_engine();
    m_engine->onUlReceived(report("dl_success", 77, "nope"), 8);
    EXPECT_EQ(m_receiver->m_rejected, (std::vector<uint64_t>{8}));
    EXPECT_TRUE(log_text().contains("onUlReceived throw catch. QString: "));
    EXPECT_TRUE(log_text().contains("Message_tag: 8"));
}

TEST_F(EngineReports, AcceptedUplinkMovesUnacknowledgedDownlinksOn) {
    m_driver->m_needs_dl = true;
    m_driver->m_new_status = model::EXECUTED;
    make_engine();
    const QString id = store_dl(model::PENDING, false);
    m_engine->onUlReceived(uplink(77), 1);
    EXPECT_EQ(status_of(id), model::EXECUTED);
}
