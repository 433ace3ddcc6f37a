// Command authorization through the real broker: two broker users, a read-only dashboard
// and an operator, and the service's allow-lists. The broker vouches for each command's
// user_id, so a client cannot pose as another user.

#include <QProcess>
#include <QUrl>

#include "tests/e2e/e2e_fixture.h"

namespace {

const QString dashboard_user = "qdashboard";
const QString operator_user = "qoperator";

bool broker_ctl(const QStringList& args) {
    QProcess ctl;
    ctl.start(QUILLON_TEST_BROKER, QStringList{"ctl"} + args);
    return ctl.waitForFinished(60000) && ctl.exitCode() == 0;
}

// A broker user with every right on the command vhost; made again if it exists.
void make_broker_user(const QString& user) {
    broker_ctl({"delete_user", user});
    ASSERT_TRUE(broker_ctl({"add_user", user, user + "-pw"}));
    ASSERT_TRUE(broker_ctl({"set_permissions", "-p", "/api", user, ".*", ".*", ".*"}));
}

QString url_of(const QString& user) {
    QUrl url(e2e::broker_url());
    url.setUserName(user);
    url.setPassword(user + "-pw");
    return url.toString();
}

bool forbidden(const QJsonObject& reply) {
    return reply == QJsonObject{{"status", "forbidden"}};
}

}  // namespace

class CommandAccess : public e2e::service_test {
protected:
    static void SetUpTestSuite() {
        make_broker_user(dashboard_user);
        make_broker_user(operator_user);
    }

    void configure(e2e::service_process& service) override {
        service.set("AMQP_API_SETTINGS", "R_ALLOW_READ", dashboard_user + "," + operator_user);
        service.set("AMQP_API_SETTINGS", "R_ALLOW_WRITE", operator_user);
        service.set("AMQP_API_SETTINGS", "R_ALLOW_ADMIN", operator_user);
        service.set_database("db_driver_dummy",
                             {{"devices", QJsonObject{{e2e::key_of(modem()), device("X")}}}});
    }

    void SetUp() override {
        e2e::service_test::SetUp();
        m_dashboard = std::make_unique<e2e::sender>(*m_log, url_of(dashboard_user), true);
        m_operator = std::make_unique<e2e::sender>(*m_log, url_of(operator_user), true);
        ASSERT_TRUE(m_dashboard->wait_ready());
        ASSERT_TRUE(m_operator->wait_ready());
    }

    QJsonObject call_as(e2e::sender& who, const QString& type, const QJsonObject& data) {
        return exchange(e2e::command(type, data, m_reply_key), &who).value("data").toObject();
    }

    QJsonObject send_dl(e2e::sender& who, const QString& marker) {
        return call_as(who, "send_dl_msg",
                       QJsonObject{{"modem_id", e2e::ids({modem()})},
                                   {"data", QJsonObject{{"cmd", "raw"}, {"hex", marker}}}});
    }

    std::unique_ptr<e2e::sender> m_dashboard;
    std::unique_ptr<e2e::sender> m_operator;
};

TEST_F(CommandAccess, DashboardReadsButIsRefusedDownlinksAndExit) {
    const QJsonObject info = call_as(*m_dashboard, "get_info", {});
    // Described under the protocol and the instance name.
    EXPECT_EQ(info.value("proto7:marl2").toObject().value("instance name").toString(), "marl2");

    const QString marker = "c0ffee0ddba11";
    EXPECT_TRUE(forbidden(send_dl(*m_dashboard, marker)));
    EXPECT_TRUE(forbidden(call_as(*m_dashboard, "exit", {})));

    // A refused exit leaves the service running: the operator is still answered.
    EXPECT_TRUE(m_service.running());
    EXPECT_FALSE(forbidden(call_as(*m_operator, "get_info", {})));

    const QString log = m_service.log();
    EXPECT_TRUE(log.contains("command send_dl_msg from user \"" + dashboard_user + "\" refused"))
        << log.toStdString();
    EXPECT_TRUE(log.contains("command exit from user \"" + dashboard_user + "\" refused"))
        << log.toStdString();
    EXPECT_EQ(log.count("command exit from user"), 1);
    EXPECT_FALSE(log.contains(marker)) << "the body of a refused command reached the log";
}

TEST_F(CommandAccess, QueueReadsAreReadsAndQueueChangesAreWrites) {
    const QString key = e2e::key_of(modem());
    const QJsonObject read =
        call_as(*m_dashboard, "dl_queue", QJsonObject{{key, QJsonObject{{"action", "get"}}}});
    EXPECT_FALSE(forbidden(read));
    const QJsonObject create{
        {key, QJsonObject{{"action", "create"},
                          {"q1", QJsonObject{{"m1", QJsonObject{{"data", QJsonObject()}}}}}}}};
    EXPECT_TRUE(forbidden(call_as(*m_dashboard, "dl_queue", create)));
    const QJsonObject created = call_as(*m_operator, "dl_queue", create);
    EXPECT_EQ(created.value(key).toObject().value("status").toString(), "ok");
}

TEST_F(CommandAccess, CommandsWithoutAUserAreRefused) {
    // The fixture's own sender gives no user_id.
    EXPECT_TRUE(forbidden(call("get_info", {})));
    EXPECT_TRUE(m_service.log().contains("command get_info from user \"(none)\" refused"));
}

TEST_F(CommandAccess, OperatorSendsDownlinksAndStopsTheService) {
    EXPECT_FALSE(forbidden(send_dl(*m_operator, "00")));
    const QJsonObject response = exchange(e2e::command("exit", {}, m_reply_key), m_operator.get());
    EXPECT_EQ(response.value("data"), QJsonValue(QJsonObject()));
    ASSERT_TRUE(m_service.wait_for_exit());
    EXPECT_EQ(m_service.exit_code(), 0);
}
