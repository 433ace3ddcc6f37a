// The service on the PostgreSQL store while the server goes away and comes back: no
// uplink is rejected or lost, each is stored once, the outage is logged once each way,
// and a command during it gets a clear error instead of a false answer.
#include <gtest/gtest.h>

#include <QElapsedTimer>
#include <QJsonArray>
#include <QProcess>
#include <QRandomGenerator>
#include <QTemporaryDir>

#include "plugins/PluginsManager.h"
#include "tests/support/postgres_server.h"
#include "tests/support/service_harness.h"

namespace {

bool postgres_script(const QString& action) {
    QProcess script;
    script.start(QUILLON_TEST_POSTGRES, {action});
    return script.waitForFinished(120000) && script.exitStatus() == QProcess::NormalExit &&
           script.exitCode() == 0;
}

QJsonObject uplink(int modem, int iterator) {
    return QJsonObject{{"msg_type", "ul_app"},
                       {"modem_id", modem},
                       {"protocol", "proto7"},
                       {"hw_type", "X"},
                       {"payload", "78041339300000"},
                       {"iterator", iterator},
                       {"time_detected", 1900000000 + iterator}};
}

// The Error line of an outage (the log name is that of one instance of proto7 and marl2).
const char* const outage_line = "Error proto7_marl2_1from0: store unavailable: ";

class StoreOutage : public ::testing::Test {
protected:
    void SetUp() override {
        m_log = std::make_unique<logger>(m_dir.filePath("test.log"), Debug, "test");
        m_modem = int(QRandomGenerator::global()->bounded(100000, 1000000000));
        m_route_key = e2e::unique_name("ul");
        m_store = QJsonObject{{"conninfo", pg_test::conninfo()},
                              {"schema", pg_test::unique_schema("outage")},
                              {"purge_interval", 0},
                              {"connect_timeout", 2}};
        m_service.set("GENERAL_SETTINGS", "R_UL_ROUTE_KEY", m_route_key);
        m_service.set_database("db_driver_postgres", m_store);
        ASSERT_TRUE(m_service.start()) << m_service.log().toStdString();
        m_sender = std::make_unique<e2e::sender>(*m_log);
        ASSERT_TRUE(m_sender->wait_ready());
        m_reply_key = e2e::unique_name("reply");
        m_replies = std::make_unique<e2e::probe>(QStringList{m_reply_key});
        ASSERT_TRUE(m_replies->wait_ready());
    }

    void TearDown() override {
        // The server is back for the tests after this one, whatever happened here.
        postgres_script("start");
    }

    void send(int from, int to) {
        for (int i = from; i <= to; ++i) {
            m_sender->publish(QString("nc.0.%1.marl2.proto7.%2").arg(m_route_key).arg(m_modem),
                              uplink(m_modem, i));
        }
    }

    // Stored rows per iterator, read through the plugin from the server.
    QMap<int, int> stored() {
        QTemporaryDir config;
        QFile file(config.filePath("plug_db_driver_postgres.json"));
        file.open(QIODevice::WriteOnly);
        file.write(QJsonDocument(m_store).toJson());
        file.close();
        PMConfig pm;
        pm.db_name = "db_driver_postgres";
        pm.plugin_path = QUILLON_BIN_DIR;
        pm.plugin_config_path = QUILLON_BIN_DIR;
        pm.plugin_db_config_path = config.path();
        PluginsManager plugins(pm, *m_log);
        model::roll_query query;
        query.modem_id = {m_modem};
        query.from = QDateTime::fromSecsSinceEpoch(0, Qt::UTC);
        query.to = QDateTime::fromSecsSinceEpoch(2000000000, Qt::UTC);
        query.limit = 0;
        model::per_modem<model::ul_message> out;
        plugins.messages_database()->ul().get_roll(out, query);
        QMap<int, int> rows;
        for (const auto& message : out[m_modem]) {
            rows[message.iterator] += 1;
        }
        return rows;
    }

    QJsonObject ask(const QString& type, const QJsonObject& data, int timeout_ms = 15000) {
        const size_t before = m_replies->messages().size();
        m_sender->publish(m_service.command_key(), e2e::command(type, data, m_reply_key));
        if (!m_replies->wait_for(before + 1, timeout_ms)) {
            return {};
        }
        return m_replies->messages().back().json().value("data").toObject();
    }

    QTemporaryDir m_dir;
    std::unique_ptr<logger> m_log;
    e2e::service_process m_service;
    std::unique_ptr<e2e::sender> m_sender;
    std::unique_ptr<e2e::probe> m_replies;
    QString m_reply_key;
    QString m_route_key;
    QJsonObject m_store;
    int m_modem = 0;
};

}  // namespace

TEST_F(StoreOutage, UplinksWaitOutAServerOutageAndAreStoredOnceAfterIt) {
    send(1, 30);
    ASSERT_TRUE(e2e::wait_until([&] { return m_service.log().count(" accepted: ") >= 30; }, 30000))
        << m_service.log().toStdString();

    ASSERT_TRUE(postgres_script("halt"));
    send(31, 70);
    ASSERT_TRUE(e2e::wait_until([&] { return m_service.log().contains(outage_line); }, 30000))
        << m_service.log().toStdString();
    // A command that needs the store is told so; it does not get an empty or stale answer.
    const QJsonObject during = ask("get_roll", QJsonObject{{"modem_id", QJsonArray{m_modem}}});
    EXPECT_EQ(during, (QJsonObject{{"status", "fail"}, {"error", "store unavailable"}}));
    // A command that needs no store still runs.
    EXPECT_FALSE(ask("get_info", {}).isEmpty());
    e2e::wait_until([] { return false; }, 2000);  // the back-off polls a few times meanwhile

    QElapsedTimer back;
    ASSERT_TRUE(postgres_script("start"));
    back.start();
    send(71, 100);
    ASSERT_TRUE(e2e::wait_until([&] { return m_service.log().count(" accepted: ") >= 100; }, 60000))
        << m_service.log().toStdString();
    // Resumed within seconds of the server's return (the longest back-off is 5 s).
    EXPECT_LT(back.elapsed(), 20000);

    const QMap<int, int> rows = stored();
    EXPECT_EQ(rows.size(), 100);
    for (auto it = rows.begin(); it != rows.end(); ++it) {
        EXPECT_EQ(it.value(), 1) << "iterator " << it.key();
    }
    const QString log = m_service.log();
    EXPECT_EQ(log.count(outage_line), 1) << log.toStdString();
    EXPECT_EQ(log.count("store available again after "), 1) << log.toStdString();
    EXPECT_FALSE(log.contains("onUlReceived throw catch")) << log.toStdString();
    EXPECT_EQ(ask("get_roll", QJsonObject{{"modem_id", QJsonArray{m_modem}}, {"limit", 1000}})
                  .value(QString::number(m_modem))
                  .toArray()
                  .size(),
              100);
}

// Started while the server is away: the service comes up all the same, its uplinks wait,
// and they are stored once the server is there.
TEST_F(StoreOutage, AServiceStartedWhileTheServerIsAwayStoresOnceItIsBack) {
    ASSERT_EQ(m_service.stop(), 0);
    ASSERT_TRUE(postgres_script("halt"));
    const int bound = m_service.log().count("Rabbit_man_ul: Queue bound");
    ASSERT_TRUE(m_service.launch());
    ASSERT_TRUE(e2e::wait_until(
        [&] {
            return m_service.log().count("Rabbit_man_ul: Queue bound") >= bound + 2 || !m_service.running();
        },
        30000))
        << m_service.log().toStdString();
    ASSERT_TRUE(m_service.running()) << m_service.log().toStdString();

    send(1, 20);
    ASSERT_TRUE(e2e::wait_until([&] { return m_service.log().contains(outage_line); }, 30000))
        << m_service.log().toStdString();
    e2e::wait_until([] { return false; }, 1000);
    EXPECT_EQ(m_service.log().count(" accepted: "), 0);

    ASSERT_TRUE(postgres_script("start"));
    ASSERT_TRUE(e2e::wait_until([&] { return m_service.log().count(" accepted: ") >= 20; }, 60000))
        << m_service.log().toStdString();
    const QMap<int, int> rows = stored();
    EXPECT_EQ(rows.size(), 20);
    for (auto it = rows.begin(); it != rows.end(); ++it) {
        EXPECT_EQ(it.value(), 1) << "iterator " << it.key();
    }
    EXPECT_EQ(m_service.log().count("store available again after "), 1);
}
