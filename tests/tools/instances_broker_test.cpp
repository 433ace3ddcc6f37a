// Three instances of the service on one broker share the modems through the balancer:
// quillon-netsim publishes each modem's uplinks on the key of the instance that owns the
// modem; every uplink is stored once, by its owner, and each instance answers the
// commands for its own modems. An instance killed mid-stream finds its modems' uplinks
// waiting in its queue when it is started again.
#include <gtest/gtest.h>

#include <QFile>
#include <QJsonArray>
#include <QProcess>
#include <QRandomGenerator>
#include <QSet>
#include <QTemporaryDir>
#include <QThread>
#include <memory>

#include "netsim_process.h"
#include "plugins/PluginsManager.h"
#include "tests/support/postgres_server.h"
#include "tests/support/service_harness.h"

namespace {

constexpr int instances = 3;
constexpr int modems = 12;

// Modem ids no other test uses, so that what other runs on the shared broker publish
// does not mix in.
int unique_first_modem() {
    return 700000 + int(QRandomGenerator::global()->bounded(90000)) * 20;
}

using uplink_id = QPair<int, int>;  // modem, iterator

// The uplinks a store holds for the given modems, one entry per stored row.
QList<uplink_id> stored_uplinks(const QString& db_name, const QString& config_dir,
                                const QList<int>& modem_ids) {
    QTemporaryDir scratch;
    logger log(scratch.filePath("read.log"), Error, "read");
    PMConfig pm;
    pm.db_name = db_name;
    pm.plugin_path = QUILLON_BIN_DIR;
    pm.plugin_config_path = QUILLON_BIN_DIR;
    pm.plugin_db_config_path = config_dir;
    PluginsManager plugins(pm, log);
    model::roll_query query;
    query.modem_id = modem_ids;
    query.from = QDateTime::fromSecsSinceEpoch(0, Qt::UTC);
    query.to = QDateTime::fromSecsSinceEpoch(4000000000LL, Qt::UTC);
    query.limit = 0;
    model::per_modem<model::ul_message> out;
    plugins.messages_database()->ul().get_roll(out, query);
    QList<uplink_id> rows;
    for (const auto& entry : out) {
        for (const auto& message : entry.second) {
            rows << uplink_id(entry.first, message.iterator);
        }
    }
    return rows;
}

// The modem ids named in an instance's "accepted:" lines.
QSet<int> accepted_modems(const QString& log) {
    QSet<int> found;
    for (const QString& line : log.split('\n')) {
        const int at = line.indexOf(" accepted: ");
        if (at >= 0) {
            const QJsonObject message =
                QJsonDocument::fromJson(line.mid(at + 11).trimmed().toUtf8()).object();
            found.insert(message.value("modem_id").toInt(-1));
        }
    }
    return found;
}

class Instances : public ::testing::Test {
protected:
    void SetUp() override {
        m_log = std::make_unique<logger>(m_dir.filePath("test.log"), Debug, "test");
        m_balancer_key = e2e::unique_name("balancer");
        m_first_modem = unique_first_modem();
        for (int i = 0; i < modems; ++i) {
            m_modem_ids << m_first_modem + i;
        }
    }

    // Each instance with a SQLite file of its own: what it stores is found in its file.
    void use_own_sqlite_files() { m_db_name = "db_driver_sqlite"; }
    // All instances on one schema of the private PostgreSQL server.
    void use_shared_postgres() {
        m_db_name = "db_driver_postgres";
        m_shared_store = QJsonObject{{"conninfo", pg_test::conninfo()},
                                     {"schema", pg_test::unique_schema("instances")},
                                     {"purge_interval", 0},
                                     {"connect_timeout", 2}};
        QFile file(m_dir.filePath("plug_db_driver_postgres.json"));
        ASSERT_TRUE(file.open(QIODevice::WriteOnly));
        file.write(QJsonDocument(m_shared_store).toJson());
    }
    bool shared() const { return !m_shared_store.isEmpty(); }

    void start_instances() {
        for (int position = 0; position < instances; ++position) {
            auto service = std::make_unique<e2e::service_process>();
            service->set("GENERAL_SETTINGS", "BALANCER_ENABLED", "true");
            service->set("GENERAL_SETTINGS", "BALANCER_ROUTE_KEY", m_balancer_key);
            service->set_database(
                m_db_name,
                shared() ? m_shared_store : QJsonObject{{"path", service->working_dir() + "/quillon.db"}});
            ASSERT_TRUE(service->start(instances, position)) << service->log().toStdString();
            m_services.push_back(std::move(service));
        }
    }

    // Starts an instance again after it was killed, and waits until it consumes.
    bool restart(int position) {
        e2e::service_process& service = *m_services[size_t(position)];
        const int bound = service.log().count("Rabbit_man_ul: Queue bound");
        return service.launch(instances, position) &&
               e2e::wait_until(
                   [&] {
                       return service.log().count("Rabbit_man_ul: Queue bound") >= bound + 2 ||
                              !service.running();
                   },
                   30000) &&
               service.running();
    }

    QStringList netsim_arguments(int count, const QString& rate) const {
        return {"--count",    QString::number(count),     "--rate",         rate,
                "--modems",   QString::number(modems),    "--first-modem",  QString::number(m_first_modem),
                "--balancer", QString::number(instances), "--balancer-key", m_balancer_key,
                "--quiet"};
    }

    // Every stored row of every instance, with the instance that stored it (-1 for the
    // shared store, where the logs tell who stored it).
    QMap<uplink_id, QList<int>> stored_by_instance() {
        QMap<uplink_id, QList<int>> where;
        if (shared()) {
            for (const uplink_id& id : stored_uplinks(m_db_name, m_dir.path(), m_modem_ids)) {
                where[id] << -1;
            }
            return where;
        }
        for (int position = 0; position < instances; ++position) {
            for (const uplink_id& id :
                 stored_uplinks(m_db_name, m_services[size_t(position)]->working_dir(), m_modem_ids)) {
                where[id] << position;
            }
        }
        return where;
    }

    // Checks every half second: each look opens every store.
    bool stored_at_least(int count, int timeout_ms) {
        return e2e::wait_until(
            [&] {
                if (stored_rows() >= count) {
                    return true;
                }
                QThread::msleep(500);
                return false;
            },
            timeout_ms);
    }

    int stored_rows() {
        int rows = 0;
        for (const auto& where : stored_by_instance()) {
            rows += where.size();
        }
        return rows;
    }

    // Each uplink once, stored by the instance that owns its modem; each instance
    // accepted its own modems alone.
    void expect_each_stored_once_by_its_owner(int count) {
        const QMap<uplink_id, QList<int>> where = stored_by_instance();
        EXPECT_EQ(where.size(), count);
        for (auto it = where.begin(); it != where.end(); ++it) {
            EXPECT_EQ(it.value(), QList<int>{shared() ? -1 : it.key().first % instances})
                << "modem " << it.key().first << " iterator " << it.key().second;
        }
        for (int position = 0; position < instances; ++position) {
            for (const int modem : accepted_modems(m_services[size_t(position)]->log())) {
                EXPECT_EQ(modem % instances, position)
                    << "instance " << position << " accepted modem " << modem;
            }
        }
    }

    // get_roll on an instance's own command key, for one of its modems.
    int roll_size(int position, int modem) {
        const QString reply_key = e2e::unique_name("reply");
        e2e::probe replies({reply_key});
        EXPECT_TRUE(replies.wait_ready());
        e2e::sender sender(*m_log);
        EXPECT_TRUE(sender.wait_ready());
        const QJsonObject request = e2e::command(
            "get_roll", QJsonObject{{"modem_id", QJsonArray{modem}}, {"limit", 1000}}, reply_key);
        sender.publish(m_services[size_t(position)]->command_key(), request);
        if (!replies.wait_for(1)) {
            ADD_FAILURE() << "no answer from instance " << position;
            return -1;
        }
        const QJsonObject data = replies.messages().front().json().value("data").toObject();
        return data.value(QString::number(modem)).toArray().size();
    }

    QTemporaryDir m_dir;
    std::unique_ptr<logger> m_log;
    QString m_balancer_key;
    QString m_db_name = "db_driver_sqlite";
    QJsonObject m_shared_store;
    int m_first_modem = 0;
    QList<int> m_modem_ids;
    std::vector<std::unique_ptr<e2e::service_process>> m_services;
};

}  // namespace

TEST_F(Instances, EachUplinkIsStoredOnceByItsOwnerAndEachInstanceAnswersForItsModems) {
    use_own_sqlite_files();
    start_instances();
    constexpr int count = 120;
    netsim_process netsim;
    ASSERT_TRUE(netsim.start(netsim_arguments(count, "200")));
    ASSERT_TRUE(netsim.wait_for_exit()) << netsim.standard_error().toStdString();
    ASSERT_EQ(netsim.exit_code(), 0) << netsim.standard_error().toStdString();
    ASSERT_EQ(netsim.summary_value("uplinks"), count) << netsim.standard_output().toStdString();

    ASSERT_TRUE(stored_at_least(count, 60000)) << stored_rows();
    e2e::wait_until([] { return false; }, 500);  // nothing more may come
    expect_each_stored_once_by_its_owner(count);

    // Each instance answers for its own modems from what it stored: 120 uplinks over
    // 12 modems are 10 a modem.
    for (int position = 0; position < instances; ++position) {
        const int own_modem =
            m_first_modem + ((position - m_first_modem % instances) + instances) % instances;
        ASSERT_EQ(own_modem % instances, position);
        EXPECT_EQ(roll_size(position, own_modem), count / modems) << "instance " << position;
    }
}

TEST_F(Instances, AKilledInstanceFindsItsUplinksWaitingAndNoneIsLost) {
    use_own_sqlite_files();
    start_instances();
    constexpr int count = 360;
    netsim_process netsim;
    ASSERT_TRUE(netsim.start(netsim_arguments(count, "60")));  // six seconds of uplinks

    // Mid-stream: instance 1 is killed and stays away for two seconds.
    QThread::msleep(1500);
    m_services[1]->kill_hard();
    const int stored_before_restart = stored_rows();
    e2e::wait_until([] { return false; }, 2000);
    ASSERT_TRUE(restart(1)) << m_services[1]->log().toStdString();

    ASSERT_TRUE(netsim.wait_for_exit()) << netsim.standard_error().toStdString();
    ASSERT_EQ(netsim.exit_code(), 0) << netsim.standard_error().toStdString();
    ASSERT_EQ(netsim.summary_value("uplinks"), count) << netsim.standard_output().toStdString();
    ASSERT_TRUE(stored_at_least(count, 60000)) << stored_rows();
    e2e::wait_until([] { return false; }, 500);
    EXPECT_LT(stored_before_restart, count);
    expect_each_stored_once_by_its_owner(count);
}

// One database for all three: an instance killed, and the database server restarted, both
// mid-stream.
TEST_F(Instances, ThreeInstancesShareOnePostgresAcrossAKillAndAServerRestart) {
#ifndef QUILLON_HAVE_POSTGRES
    GTEST_SKIP() << "built without the PostgreSQL plugin (libpq-dev missing)";
#else
    use_shared_postgres();
    start_instances();
    constexpr int count = 480;
    netsim_process netsim;
    ASSERT_TRUE(netsim.start(netsim_arguments(count, "60")));  // eight seconds of uplinks

    QThread::msleep(1500);
    m_services[1]->kill_hard();
    e2e::wait_until([] { return false; }, 1500);
    ASSERT_TRUE(restart(1)) << m_services[1]->log().toStdString();
    e2e::wait_until([] { return false; }, 1500);
    QProcess server;
    server.start(QUILLON_TEST_POSTGRES, {"restart"});
    ASSERT_TRUE(server.waitForFinished(120000) && server.exitCode() == 0)
        << server.readAllStandardError().toStdString();

    ASSERT_TRUE(netsim.wait_for_exit()) << netsim.standard_error().toStdString();
    ASSERT_EQ(netsim.exit_code(), 0) << netsim.standard_error().toStdString();
    ASSERT_EQ(netsim.summary_value("uplinks"), count) << netsim.standard_output().toStdString();
    ASSERT_TRUE(stored_at_least(count, 60000)) << stored_rows();
    e2e::wait_until([] { return false; }, 500);
    expect_each_stored_once_by_its_owner(count);
    // The restart was seen, and got over, by the instances that were working then.
    int outages = 0;
    for (const auto& service : m_services) {
        const QString log = service->log();
        outages += log.count("store unavailable: ");
        EXPECT_EQ(log.count("store unavailable: "), log.count("store available again after "));
    }
    EXPECT_GE(outages, 1);
#endif
}
