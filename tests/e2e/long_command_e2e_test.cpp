// A command that keeps the service's only thread for many heartbeat intervals (here: its
// store is locked by another process) is answered once and costs no broker connection.
#include <QSqlDatabase>
#include <QSqlQuery>

#include "tests/e2e/e2e_fixture.h"

namespace {

using e2e::ids;
using e2e::key_of;

constexpr int heartbeat_s = 2;
constexpr int held_ms = 14000;  // seven heartbeat intervals

class LongCommand : public e2e::service_test {
protected:
    void configure(e2e::service_process& service) override {
        for (const char* group : {"AMQP_UL_SETTINGS", "AMQP_UL_CLIENT_SETTINGS", "AMQP_API_SETTINGS"}) {
            service.set(group, "R_HEARTBEAT", QString::number(heartbeat_s));
        }
        m_path = m_dir.filePath("quillon.db");
        service.set_database("db_driver_sqlite",
                             QJsonObject{{"path", m_path},
                                         {"purge_interval", 0},
                                         {"busy_timeout", 60000},
                                         {"devices", QJsonObject{{key_of(modem(0)), device("X")}}}});
    }

    QString m_path;
};

}  // namespace

TEST_F(LongCommand, ACommandBlockedForSevenHeartbeatIntervalsIsAnsweredOnceWithoutLosingALink) {
    const QString name = "long_command_lock";
    {
        QSqlDatabase db = QSqlDatabase::addDatabase("QSQLITE", name);
        db.setDatabaseName(m_path);
        ASSERT_TRUE(db.open());
        QSqlQuery lock(db);
        ASSERT_TRUE(lock.exec("BEGIN IMMEDIATE"));

        m_replies->clear();
        const QJsonObject request = e2e::command(
            "send_dl_msg",
            QJsonObject{{"modem_id", ids({modem(0)})}, {"data", QJsonObject{{"n", 1}}}, {"timeout", 60}},
            m_reply_key);
        m_sender->publish(m_service.command_key(), request);
        // The service now waits for the write lock on its only thread.
        e2e::wait_until([] { return false; }, held_ms);
        EXPECT_TRUE(m_replies->messages().empty());
        ASSERT_TRUE(lock.exec("ROLLBACK"));

        const QString cmd_id = request.value("cmd_id").toString();
        ASSERT_TRUE(e2e::wait_until([&] { return !m_replies->messages().empty(); }, 15000))
            << m_service.log().right(3000).toStdString();
        e2e::wait_until([] { return false; }, 2000);  // a second answer would be here by now
        ASSERT_EQ(m_replies->messages().size(), 1u);
        const QJsonObject response = m_replies->messages()[0].json();
        EXPECT_EQ(response.value("cmd_id").toString(), cmd_id);
        EXPECT_TRUE(
            response.value("data").toObject().value(key_of(modem(0))).toObject().value("ok").toBool());
    }
    QSqlDatabase::removeDatabase(name);

    const QString log = m_service.log();
    EXPECT_FALSE(log.contains(" lost: ")) << log.right(3000).toStdString();
    EXPECT_FALSE(log.contains("Disconnected")) << log.right(3000).toStdString();
    // The links still serve.
    EXPECT_FALSE(call("get_info", {}).isEmpty());
}
