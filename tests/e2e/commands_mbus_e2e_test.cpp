// M-Bus commands through the service process and the broker: an operator sets a meter's
// clock with send_dl_msg, the network server receives the encoded bytes and reports them
// delivered, and the downlink reads EXECUTED.
#include "tests/e2e/e2e_fixture.h"

namespace {

using e2e::ids;
using e2e::key_of;

class MbusCommands : public e2e::database_test {
protected:
    void configure(e2e::service_process& service) override {
        use_database(service, QJsonObject{{key_of(modem(0)), device("X")}});
    }

    QJsonObject stored(const QString& db_id) {
        return call("status_dl_msg", QJsonObject{{"db_id", QJsonArray{db_id}}}).value(db_id).toObject();
    }
};

TEST_P(MbusCommands, SetDatetimeReachesTheNetworkServerAndIsExecutedOnItsReport) {
    e2e::probe netcore({"cmd.in.netcore"});
    ASSERT_TRUE(netcore.wait_ready());
    // 2024-03-15 13:45 UTC; type F worked out by hand: 2d 0d 0f 33 after DIF 04, VIF 6d.
    const QJsonObject reply =
        call("send_dl_msg", QJsonObject{{"modem_id", ids({modem(0)})},
                                        {"data", QJsonObject{{"cmd", "set_datetime"}, {"time", 1710510300}}},
                                        {"timeout", 600}});
    const QString db_id = reply.value(key_of(modem(0))).toObject().value("bd_id").toString();
    ASSERT_FALSE(db_id.isEmpty()) << m_service.log().right(3000).toStdString();

    ASSERT_TRUE(wait_own_commands(netcore, 1)) << m_service.log().right(3000).toStdString();
    const std::vector<QJsonObject> commands = own_commands(netcore);
    ASSERT_EQ(commands.size(), 1u);
    EXPECT_EQ(commands.front().value("msg_type").toString(), "dl");
    const QJsonObject dl = commands.front().value("data").toObject();
    EXPECT_EQ(dl.value("payload").toString(), "51046D2D0D0F33");
    EXPECT_EQ(dl.value("status_id").toString(), db_id);
    EXPECT_EQ(dl.value("modem_id").toInt(), modem(0));
    EXPECT_EQ(dl.value("protocol").toString(), "proto7");

    QJsonObject message = stored(db_id);
    EXPECT_EQ(message.value("dl_status").toString(), "PENDING");
    EXPECT_EQ(message.value("payload").toString(), "51046d2d0d0f33");

    m_sender->publish(QString("nc.0.ul.marl2.proto7.%1").arg(modem(0)),
                      QJsonObject{{"msg_type", "dl_success"}, {"modem_id", modem(0)}, {"status_id", db_id}});
    ASSERT_TRUE(e2e::wait_until([&] { return stored(db_id).value("dl_status").toString() == "EXECUTED"; }))
        << m_service.log().right(3000).toStdString();
}

TEST_P(MbusCommands, AnUnknownCommandIsAnsweredForItsModemAndNothingIsSent) {
    e2e::probe netcore({"cmd.in.netcore"});
    ASSERT_TRUE(netcore.wait_ready());
    const QJsonObject reply = call(
        "send_dl_msg", QJsonObject{{"modem_id", ids({modem(0)})}, {"data", QJsonObject{{"cmd", "open"}}}});
    EXPECT_EQ(reply.value(key_of(modem(0))).toObject(),
              (QJsonObject{{"ok", false},
                           {"error",
                            "mbus downlink: unknown \"cmd\" \"open\" (set_datetime, application_reset, "
                            "set_primary_address or raw)"}}))
        << m_service.log().right(3000).toStdString();
    // A bad argument too: a primary address is one byte, 0 to 250.
    const QJsonObject bad_address = call(
        "send_dl_msg", QJsonObject{{"modem_id", ids({modem(0)})},
                                   {"data", QJsonObject{{"cmd", "set_primary_address"}, {"address", 300}}}});
    EXPECT_EQ(bad_address.value(key_of(modem(0))).toObject().value("ok"), QJsonValue(false));
    EXPECT_FALSE(bad_address.value(key_of(modem(0))).toObject().value("error").toString().isEmpty());
    EXPECT_EQ(m_service.log().count("send_dl_msg: modem " + QString::number(modem(0)) + ": mbus downlink:"),
              2);
    // Nothing was stored for the modem, nor sent to the network server.
    const QJsonObject listed = call("get_dl_msg", QJsonObject{{"modem_id", ids({modem(0)})}});
    EXPECT_TRUE(listed.value(key_of(modem(0))).toArray().isEmpty())
        << QJsonDocument(listed).toJson().toStdString();
    EXPECT_TRUE(own_commands(netcore).empty());
}

INSTANTIATE_TEST_SUITE_P(Databases, MbusCommands, e2e::database_plugins(), e2e::database_label);

}  // namespace
