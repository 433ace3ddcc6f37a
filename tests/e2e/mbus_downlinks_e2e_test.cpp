// M-Bus downlinks through the service process and the broker, as an operator meets them:
// the meter's clock set by a "typical" queue entry, a failed delivery, a downlink nobody
// reports on, and a setting that the meter confirms with its next uplink.
#include "tests/e2e/e2e_fixture.h"

namespace {

using e2e::ids;
using e2e::key_of;

// 2024-03-15 13:45 UTC as a type F date/time record after CI 0x51 (SND_UD data), worked out
// by hand: minute 45 = 0x2D; hour 13 = 0x0D; day 15 | year bits 0-2 (24 & 7 = 0) << 5 = 0x0F;
// month 3 | year bits 3-6 (24 >> 3 = 3) << 4 = 0x33.
constexpr qint64 clock_time = 1710510300;
const QString clock_payload = "51046D2D0D0F33";

class MbusDownlinks : public e2e::service_test {
protected:
    void configure(e2e::service_process& service) override {
        service.set("GENERAL_SETTINGS", "DL_QUEUES", "true");
        service.set_database("db_driver_sqlite",
                             QJsonObject{{"devices", QJsonObject{{key_of(modem()), device("X")}}},
                                         {"path", m_dir.filePath("quillon.db")},
                                         {"purge_interval", 0}});
    }

    void SetUp() override {
        e2e::service_test::SetUp();
        m_netcore = std::make_unique<e2e::probe>(QStringList{"cmd.in.netcore"});
        ASSERT_TRUE(m_netcore->wait_ready());
    }

    QJsonObject stored(const QString& db_id) {
        return call("status_dl_msg", QJsonObject{{"db_id", QJsonArray{db_id}}}).value(db_id).toObject();
    }

    bool reaches(const QString& db_id, const QString& status) {
        const bool reached =
            e2e::wait_until([&] { return stored(db_id).value("dl_status").toString() == status; });
        if (!reached) {
            ADD_FAILURE() << db_id.toStdString() << " never " << status.toStdString() << ": "
                          << QJsonDocument(stored(db_id)).toJson().toStdString()
                          << m_service.log().right(3000).toStdString();
        }
        return reached;
    }

    void report(const QString& type, const QString& db_id) {
        m_sender->publish(QString("nc.0.ul.marl2.proto7.%1").arg(modem()),
                          QJsonObject{{"msg_type", type}, {"modem_id", modem()}, {"status_id", db_id}});
    }

    // The one `dl` command this service sent to the network server so far.
    QJsonObject sent_downlink(size_t count = 1) {
        if (!wait_own_commands(*m_netcore, count)) {
            ADD_FAILURE() << "no dl command\n" << m_service.log().right(3000).toStdString();
            return {};
        }
        const std::vector<QJsonObject> commands = own_commands(*m_netcore);
        EXPECT_EQ(commands.size(), count);
        EXPECT_EQ(commands.back().value("msg_type").toString(), "dl");
        return commands.back().value("data").toObject();
    }

    QString send_clock(int timeout) {
        const QJsonObject reply = call(
            "send_dl_msg", QJsonObject{{"modem_id", ids({modem()})},
                                       {"data", QJsonObject{{"cmd", "set_datetime"}, {"time", clock_time}}},
                                       {"timeout", timeout}});
        return reply.value(key_of(modem())).toObject().value("bd_id").toString();
    }

    std::unique_ptr<e2e::probe> m_netcore;
};

TEST_F(MbusDownlinks, ATypicalQueueEntrySetsTheClockAfterTheModemsNextUplink) {
    const QString key = key_of(modem());
    const QJsonObject entry{{"data", QJsonObject{{"cmd", "set_datetime"}, {"time", clock_time}}}};
    const QJsonObject created = call(
        "dl_queue",
        QJsonObject{
            {key,
             QJsonObject{
                 {"action", "create"},
                 {"clock", QJsonObject{{"ttl", 3600}, {"timeout", 600}, {"repeat", 1}, {"set", entry}}}}}});
    ASSERT_EQ(created.value(key).toObject().value("status").toString(), "ok")
        << QJsonDocument(created).toJson().toStdString();
    EXPECT_TRUE(own_commands(*m_netcore).empty());

    publish_uplink(modem(), e2e::volume_payload(5), 1);
    const QJsonObject dl = sent_downlink();
    EXPECT_EQ(dl.value("payload").toString(), clock_payload);
    EXPECT_EQ(dl.value("modem_id").toInt(), modem());
    const QString db_id = dl.value("status_id").toString();
    ASSERT_FALSE(db_id.isEmpty());
    EXPECT_EQ(stored(db_id).value("dl_status").toString(), "PENDING");

    report("dl_success", db_id);
    ASSERT_TRUE(reaches(db_id, "EXECUTED"));

    // The next uplink finds the entry done; nothing more is sent.
    publish_uplink(modem(), e2e::volume_payload(6), 2);
    ASSERT_TRUE(accepted(modem(), 3));  // two uplinks and the report
    const QJsonObject queues = call("dl_queue", QJsonObject{{key, QJsonObject{{"action", "get"}}}});
    const QJsonObject clock = queues.value(key)
                                  .toObject()
                                  .value("result")
                                  .toObject()
                                  .value("dl")
                                  .toObject()
                                  .value("clock")
                                  .toObject();
    EXPECT_EQ(clock.value("set").toObject().value("status").toString(), "DONE")
        << QJsonDocument(queues).toJson().toStdString();
    EXPECT_EQ(own_commands(*m_netcore).size(), 1u);
}

TEST_F(MbusDownlinks, AFailedDeliveryEndsTheDownlinkAsTimedOut) {
    const QString db_id = send_clock(600);
    ASSERT_FALSE(db_id.isEmpty()) << m_service.log().right(3000).toStdString();
    EXPECT_EQ(sent_downlink().value("payload").toString(), clock_payload);
    report("dl_fault", db_id);
    ASSERT_TRUE(reaches(db_id, "TIMEOUT"));
    // A late success report does not revive it.
    report("dl_success", db_id);
    publish_uplink(modem(), e2e::volume_payload(5), 1);
    ASSERT_TRUE(accepted(modem(), 3));  // the two reports and the uplink
    EXPECT_EQ(stored(db_id).value("dl_status").toString(), "TIMEOUT");
}

TEST_F(MbusDownlinks, TheControllerTickTimesOutADownlinkNobodyReportsOn) {
    // One second to live; the controller ticks every second.
    const QString db_id = send_clock(1);
    ASSERT_FALSE(db_id.isEmpty()) << m_service.log().right(3000).toStdString();
    sent_downlink();
    EXPECT_EQ(stored(db_id).value("dl_status").toString(), "PENDING");
    ASSERT_TRUE(reaches(db_id, "TIMEOUT"));
}

TEST_F(MbusDownlinks, ANewBusAddressWaitsForTheUplinkThatReportsIt) {
    const QString key = key_of(modem());
    ASSERT_EQ(
        call("write_setting", QJsonObject{{"settings", QJsonObject{{key, QJsonObject{{"bus_address", 7}}}}}})
            .value(key)
            .toString(),
        "ok");
    // DIF 0x01 (8 bits), VIF 0x7A (bus address), 7.
    const QJsonObject dl = sent_downlink();
    EXPECT_EQ(dl.value("payload").toString(), "51017A07");
    const QString db_id = dl.value("status_id").toString();

    report("dl_success", db_id);
    ASSERT_TRUE(reaches(db_id, "WAIT_DATA"));
    const auto bus_address = [&] {
        return call("read_setting",
                    QJsonObject{{"modem_id", ids({modem()})}, {"settings", QJsonArray{"bus_address"}}})
            .value(key)
            .toObject()
            .value("bus_address");
    };
    EXPECT_EQ(bus_address().toObject().value("pending"), QJsonValue(true));

    // An uplink with another address confirms nothing; the one reporting 7 does.
    publish_uplink(modem(), "78017a06", 1);
    ASSERT_TRUE(accepted(modem(), 2));  // the report and the uplink
    EXPECT_EQ(stored(db_id).value("dl_status").toString(), "WAIT_DATA");
    publish_uplink(modem(), "78017a07", 2);
    ASSERT_TRUE(reaches(db_id, "EXECUTED"));
    EXPECT_EQ(bus_address(), QJsonValue(7));
}

}  // namespace
