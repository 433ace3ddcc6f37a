#include <gtest/gtest.h>
#include <QJsonArray>

#include "tests/support/service_harness.h"

namespace {

// CI 0x78, one record: 32-bit volume in litres, 12345 l.
const char* const volume_payload = "78041339300000";

QJsonObject devices() {
    return QJsonObject{
        {"devices", QJsonObject{{"77", QJsonObject{{"protocol", "proto7"},
                                                   {"hw_type", "X"},
                                                   {"clients", QJsonArray{"c1", "c2"}}}},
                                {"78", QJsonObject{{"protocol", "proto7"}, {"hw_type", "X"}}}}}};
}

QJsonObject uplink(int modem, const QString& payload, int iterator) {
    return QJsonObject{{"msg_type", "ul_app"}, {"modem_id", modem},          {"protocol", "proto7"},
                       {"hw_type", "X"},       {"payload", payload},         {"iterator", iterator},
                       {"station_id", 5},      {"time_detected", 1900000000}};
}

QString uplink_key(int modem) {
    return QString("nc.0.ul.marl2.proto7.%1").arg(modem);
}

class EngineEndToEnd : public ::testing::Test {
protected:
    void SetUp() override {
        m_log = std::make_unique<logger>(m_dir.filePath("test.log"), Debug, "test");
        m_service.set_database("db_driver_dummy", devices());
        m_service.set("GENERAL_SETTINGS", "DL_QUEUES", "true");
        ASSERT_TRUE(m_service.start()) << m_service.log().toStdString();
        m_sender = std::make_unique<e2e::sender>(*m_log);
        ASSERT_TRUE(m_sender->wait_ready());
    }

    // Sends a command and returns the response's data.
    QJsonObject call(const QString& type, const QJsonObject& data) {
        const QString reply_key = e2e::unique_name("reply");
        e2e::probe replies({reply_key});
        EXPECT_TRUE(replies.wait_ready());
        m_sender->publish(m_service.command_key(), e2e::command(type, data, reply_key));
        if (!replies.wait_for(1)) {
            ADD_FAILURE() << "no response to " << type.toStdString();
            return {};
        }
        return replies.messages().front().json().value("data").toObject();
    }

    QTemporaryDir m_dir;
    std::unique_ptr<logger> m_log;
    e2e::service_process m_service;
    std::unique_ptr<e2e::sender> m_sender;
};

TEST_F(EngineEndToEnd, UplinkIsDecodedStoredPublishedToEachClientAndAcknowledged) {
    e2e::probe clients({"c1.#", "c2.#"});
    ASSERT_TRUE(clients.wait_ready());
    m_sender->publish(uplink_key(77), uplink(77, volume_payload, 1));

    ASSERT_TRUE(clients.wait_for(4)) << m_service.log().toStdString();
    QStringList keys;
    for (const auto& message : clients.messages()) {
        keys << message.routing_key;
    }
    EXPECT_EQ(keys, (QStringList{"c1.0.ul_eav.X.mbus.volume.77", "c1.0.ul_roll.X.mbus.null.77",
                                 "c2.1.ul_eav.X.mbus.volume.77", "c2.1.ul_roll.X.mbus.null.77"}));
    EXPECT_DOUBLE_EQ(clients.messages()[0].json().value("value").toDouble(), 12.345);
    EXPECT_TRUE(e2e::wait_until([&] { return m_service.log().contains(" accepted: "); }));

    const QJsonObject roll = call("get_roll", QJsonObject{{"modem_id", QJsonArray{77}}, {"to", 2000000000}});
    const QJsonArray stored = roll.value("77").toArray();
    ASSERT_EQ(stored.size(), 1);
    EXPECT_EQ(stored[0].toObject().value("parse_status").toString(), "parsed");
    EXPECT_EQ(stored[0].toObject().value("station_id").toInt(), 5);
}

TEST_F(EngineEndToEnd, HeartbeatIsRejectedButItsRecordsArePublished) {
    e2e::probe clients({"null.#"});
    ASSERT_TRUE(clients.wait_ready());
    m_sender->publish(uplink_key(78), QJsonObject{{"msg_type", "ul_hb"},
                                                  {"modem_id", 78},
                                                  {"protocol", "proto7"},
                                                  {"hw_type", "X"},
                                                  {"time_detected", 1900000000},
                                                  {"temperature", 21.5},
                                                  {"voltage", 3.6}});
    ASSERT_TRUE(clients.wait_for(3)) << m_service.log().toStdString();
    EXPECT_EQ(clients.messages()[0].routing_key, "null.0.ul_eav.X.system.heartbeat.temp.78");
    EXPECT_EQ(clients.messages()[1].routing_key, "null.0.ul_eav.X.system.heartbeat.voltage.78");
    EXPECT_EQ(clients.messages()[2].routing_key, "null.0.ul_roll.X.system.heartbeat.null.78");
    EXPECT_FALSE(m_service.log().contains(" accepted: "));
}

TEST_F(EngineEndToEnd, QueuedDownlinkGoesOutAfterAnUplinkAndItsReportIsApplied) {
    e2e::probe netcore({"cmd.in.netcore"});
    ASSERT_TRUE(netcore.wait_ready());
    const QJsonObject queue{
        {"77",
         QJsonObject{
             {"action", "create"},
             {"q1", QJsonObject{{"ttl", 3600},
                                {"timeout", 600},
                                {"e1", QJsonObject{{"type", "raw"},
                                                   {"data", QJsonObject{{"raw_payload", "0a0b"}}}}}}}}}};
    const QJsonObject created = call("dl_queue", queue);
    EXPECT_EQ(created.value("77").toObject().value("status").toString(), "ok");

    m_sender->publish(uplink_key(77), uplink(77, volume_payload, 2));
    ASSERT_TRUE(netcore.wait_for(1)) << m_service.log().toStdString();
    const QJsonObject dl = netcore.messages().front().json();
    EXPECT_EQ(dl.value("msg_type").toString(), "dl");
    EXPECT_EQ(dl.value("sharded").toInt(), 77);
    EXPECT_EQ(dl.value("sender").toString(), m_service.command_key());
    const QJsonObject data = dl.value("data").toObject();
    EXPECT_EQ(data.value("payload").toString(), "0a0b");
    EXPECT_EQ(data.value("modem_id").toInt(), 77);
    const QString db_id = data.value("status_id").toString();
    ASSERT_FALSE(db_id.isEmpty());

    m_sender->publish(uplink_key(77),
                      QJsonObject{{"msg_type", "dl_success"}, {"modem_id", 77}, {"status_id", db_id}});
    EXPECT_TRUE(e2e::wait_until([&] {
        const QJsonObject status = call("status_dl_msg", QJsonObject{{"db_id", QJsonArray{db_id}}});
        return status.value(db_id).toObject().value("dl_status").toString() == "EXECUTED";
    }));
}

}  // namespace
