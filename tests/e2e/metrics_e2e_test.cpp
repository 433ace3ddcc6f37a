// The service's metrics and health endpoint with the real process on the private broker:
// counters move with an uplink stream, the text passes promtool, /health follows the
// broker, and the dashboard's queries name only what a scrape shows.
#include <QDir>
#include <QElapsedTimer>
#include <QJsonArray>
#include <QProcess>
#include <QStandardPaths>
#include <QTemporaryFile>
#include <QUrl>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include "tests/e2e/e2e_fixture.h"

namespace e2e {
namespace {

// A port that was free a moment ago.
int free_port() {
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    inet_pton(AF_INET, "127.0.0.1", &address.sin_addr);
    socklen_t length = sizeof address;
    bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address);
    getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
    close(fd);
    return ntohs(address.sin_port);
}

struct http_answer {
    int status = 0;
    QByteArray body;
};

http_answer http_get(int port, const char* path) {
    http_answer out;
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(uint16_t(port));
    inet_pton(AF_INET, "127.0.0.1", &address.sin_addr);
    if (connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
        close(fd);
        return out;
    }
    const QByteArray request = QByteArray("GET ") + path + " HTTP/1.0\r\n\r\n";
    (void)!write(fd, request.constData(), size_t(request.size()));
    QByteArray answer;
    char buffer[8192];
    ssize_t n;
    while ((n = read(fd, buffer, sizeof buffer)) > 0) {
        answer.append(buffer, int(n));
    }
    close(fd);
    const int space = answer.indexOf(' ');
    out.status = space < 0 ? 0 : answer.mid(space + 1, 3).toInt();
    const int body = answer.indexOf("\r\n\r\n");
    out.body = body < 0 ? QByteArray() : answer.mid(body + 4);
    return out;
}

// A scrape: the text, each series' value, and each family's type.
struct scrape {
    QByteArray text;
    QMap<QString, double> series;
    QMap<QString, QString> types;

    double operator[](const QString& key) const { return series.value(key, 0); }
};

scrape read_metrics(int port) {
    scrape out;
    out.text = http_get(port, "/metrics").body;
    for (const QByteArray& raw : out.text.split('\n')) {
        const QString line = QString::fromUtf8(raw);
        if (line.startsWith("# TYPE ")) {
            const QStringList parts = line.split(' ');
            out.types[parts.value(2)] = parts.value(3);
        } else if (!line.isEmpty() && !line.startsWith('#')) {
            const int space = line.lastIndexOf(' ');
            out.series[line.left(space)] = line.mid(space + 1).toDouble();
        }
    }
    return out;
}

int promtool_check(const QByteArray& text, QString* output) {
    QProcess check;
    check.setProcessChannelMode(QProcess::MergedChannels);
    check.start("promtool", {"check", "metrics"});
    check.waitForStarted();
    check.write(text);
    check.closeWriteChannel();
    check.waitForFinished(30000);
    *output = QString::fromUtf8(check.readAll());
    return check.exitCode();
}

bool broker_ctl(const QString& command) {
    QProcess ctl;
    ctl.start(QUILLON_TEST_BROKER, {"ctl", command});
    return ctl.waitForFinished(120000) && ctl.exitCode() == 0;
}

class MetricsE2E : public service_test {
protected:
    void configure(service_process& service) override {
        m_port = free_port();
        service.set("GENERAL_SETTINGS", "METRICS_PORT", QString::number(m_port));
        service.set_database("db_driver_sqlite",
                             QJsonObject{{"path", m_dir.filePath("quillon.db")}, {"purge_interval", 0}});
    }

    bool health_is(int status, int timeout_ms = 30000) {
        return wait_until([&] { return http_get(m_port, "/health").status == status; }, timeout_ms);
    }

    void publish_heartbeat(int modem_id) {
        m_sender->publish(QString("nc.0.ul.marl2.proto7.%1").arg(modem_id),
                          QJsonObject{{"msg_type", "ul_hb"},
                                      {"modem_id", modem_id},
                                      {"protocol", "proto7"},
                                      {"hw_type", "X"},
                                      {"time_detected", detected_at},
                                      {"temperature", 21.5},
                                      {"voltage", 3.6}});
    }

    int m_port = 0;
};

const QString acked = "quillon_uplinks_total{type=\"ul_app\",outcome=\"acked\"}";
const QString heartbeat = "quillon_uplinks_total{type=\"ul_hb\",outcome=\"rejected_heartbeat\"}";
const QString unknown_type = "quillon_uplinks_total{type=\"unknown\",outcome=\"rejected_bad\"}";
const QString not_mine = "quillon_uplinks_total{type=\"ul_app\",outcome=\"rejected_not_mine\"}";
const QString processed = "quillon_uplink_processing_seconds_count";

TEST_F(MetricsE2E, CountersMoveWithAnUplinkStreamAndTheTextPassesPromtool) {
    ASSERT_TRUE(health_is(200)) << http_get(m_port, "/health").body.toStdString();
    const scrape before = read_metrics(m_port);
    ASSERT_FALSE(before.text.isEmpty());
    EXPECT_EQ(before[acked], 0);

    constexpr int uplinks = 30;
    for (int i = 0; i < uplinks; ++i) {
        publish_uplink(modem(), volume_payload(1000 + i), i + 1, detected_at + i);
    }
    publish_heartbeat(modem());
    m_sender->publish(QString("nc.0.ul.marl2.proto7.%1").arg(modem()),
                      QJsonObject{{"msg_type", "no_such_type"}, {"modem_id", modem()}});
    QJsonObject foreign{{"msg_type", "ul_app"}, {"modem_id", modem()}, {"protocol", "proto8"},
                        {"hw_type", "X"},       {"payload", "00"},     {"time_detected", detected_at}};
    m_sender->publish(QString("nc.0.ul.marl2.proto7.%1").arg(modem()), foreign);
    ASSERT_TRUE(accepted(modem(), uplinks));
    EXPECT_FALSE(call("get_info", {}).isEmpty());
    EXPECT_TRUE(unanswered(command("no_such_command", {}, m_reply_key)));

    scrape after;
    ASSERT_TRUE(wait_until([&] {
        after = read_metrics(m_port);
        return after[processed] - before[processed] >= uplinks + 3;
    })) << after.text.toStdString();

    EXPECT_EQ(after[acked] - before[acked], uplinks);
    EXPECT_EQ(after[heartbeat] - before[heartbeat], 1);
    EXPECT_EQ(after[unknown_type] - before[unknown_type], 1);
    EXPECT_EQ(after[not_mine] - before[not_mine], 1);
    EXPECT_EQ(after[processed] - before[processed], uplinks + 3);
    // Each uplink is published (its values and the message) to the modem's one client "null".
    EXPECT_GE(after["quillon_publications_total"] - before["quillon_publications_total"], 2 * uplinks);
    EXPECT_EQ(after["quillon_publications_dropped_total"], 0);
    EXPECT_EQ(after["quillon_store_seconds_count{operation=\"save_message\"}"] -
                  before["quillon_store_seconds_count{operation=\"save_message\"}"],
              uplinks + 1);
    EXPECT_GE(after["quillon_store_seconds_count{operation=\"commit\"}"] -
                  before["quillon_store_seconds_count{operation=\"commit\"}"],
              1);
    EXPECT_GE(after["quillon_batch_size_sum"] - before["quillon_batch_size_sum"], uplinks);
    EXPECT_EQ(after["quillon_store_errors_total"], 0);
    EXPECT_GE(after["quillon_commands_total{name=\"get_info\",outcome=\"ok\"}"], 1);
    EXPECT_EQ(after["quillon_commands_total{name=\"unknown\",outcome=\"unknown\"}"], 1);
    for (const char* link : {"uplinks", "clients", "commands_in", "commands_out"}) {
        EXPECT_EQ(after[QString("quillon_amqp_connected{link=\"%1\"}").arg(link)], 1) << link;
    }
    EXPECT_EQ(
        after["quillon_build_info{version=\"1.1.43\",protocol=\"proto7\",instance=\"marl2\",position=\"0\","
              "count=\"1\"}"],
        1)
        << after.text.toStdString();
    EXPECT_GT(after["process_resident_memory_bytes"], 1e6);
    EXPECT_GT(after["process_open_fds"], 3);
    EXPECT_GT(after["process_start_time_seconds"], 1.7e9);

    if (QStandardPaths::findExecutable("promtool").isEmpty()) {
        GTEST_SKIP() << "promtool is not installed (scripts/install-deps)";
    }
    QString output;
    EXPECT_EQ(promtool_check(after.text, &output), 0) << output.toStdString() << after.text.toStdString();
}

TEST_F(MetricsE2E, HealthTurns503WhileTheBrokerIsDownAnd200WhenItReturns) {
    ASSERT_TRUE(health_is(200));
    const http_answer up = http_get(m_port, "/health");
    EXPECT_EQ(QJsonDocument::fromJson(up.body).object().value("status").toString(), "up");

    ASSERT_TRUE(broker_ctl("stop_app"));
    // Whatever happens below, the broker is started again for the tests that follow.
    struct restart_guard {
        ~restart_guard() { broker_ctl("start_app"); }
    } guard;
    ASSERT_TRUE(health_is(503)) << http_get(m_port, "/health").body.toStdString();
    const QJsonObject down = QJsonDocument::fromJson(http_get(m_port, "/health").body).object();
    EXPECT_EQ(down.value("status").toString(), "down");
    EXPECT_TRUE(down.value("down").toArray().contains("amqp uplinks"))
        << QJsonDocument(down).toJson().toStdString();
    EXPECT_EQ(down.value("amqp").toObject().value("uplinks").toString(), "down");
    EXPECT_EQ(down.value("store").toString(), "up");
    EXPECT_EQ(read_metrics(m_port)["quillon_amqp_connected{link=\"uplinks\"}"], 0);

    ASSERT_TRUE(broker_ctl("start_app"));
    ASSERT_TRUE(health_is(200, 60000)) << http_get(m_port, "/health").body.toStdString();
    const scrape back = read_metrics(m_port);
    EXPECT_GE(back["quillon_amqp_reconnects_total{link=\"uplinks\"}"], 1);
    EXPECT_GE(back["quillon_amqp_reconnects_total{link=\"commands_in\"}"], 1);
}

TEST_F(MetricsE2E, AMetricsPortThatIsTakenStopsTheStartWithAClearError) {
    service_process second;
    second.set("GENERAL_SETTINGS", "METRICS_PORT", QString::number(m_port));
    ASSERT_TRUE(second.launch());
    ASSERT_TRUE(second.wait_for_exit(30000));
    EXPECT_EQ(second.exit_code(), 1);
    const QString error = QString::fromUtf8(second.standard_error());
    EXPECT_TRUE(error.contains(QString("start-up failed: METRICS_ADDRESS/METRICS_PORT cannot be used: cannot "
                                       "listen on 127.0.0.1 port %1")
                                   .arg(m_port)))
        << error.toStdString();
    // The first instance serves on.
    EXPECT_TRUE(health_is(200));
}

// Every query of the dashboard names metrics that a real scrape of the service shows,
// and each parses as PromQL (promtool checks them as recording rules).
TEST_F(MetricsE2E, DashboardQueriesNameOnlyExportedMetrics) {
    QFile file(QUILLON_SOURCE_DIR "/docs/grafana/quillon.json");
    ASSERT_TRUE(file.open(QIODevice::ReadOnly));
    QJsonParseError error;
    const QJsonObject dashboard = QJsonDocument::fromJson(file.readAll(), &error).object();
    ASSERT_EQ(error.error, QJsonParseError::NoError) << error.errorString().toStdString();
    EXPECT_FALSE(dashboard.value("title").toString().isEmpty());
    EXPECT_FALSE(dashboard.value("__inputs").toArray().isEmpty()) << "import asks for the data source";

    // A scrape after some traffic, so that every family has its series (those of commands
    // appear with the first command).
    publish_uplink(modem(), volume_payload(5), 1);
    ASSERT_TRUE(accepted(modem(), 1));
    EXPECT_FALSE(call("get_info", {}).isEmpty());
    const scrape now = read_metrics(m_port);
    ASSERT_FALSE(now.types.isEmpty());

    QStringList expressions;
    QJsonArray panels = dashboard.value("panels").toArray();
    for (int i = 0; i < panels.size(); ++i) {
        const QJsonObject panel = panels[i].toObject();
        for (const auto& nested : panel.value("panels").toArray()) {
            panels.append(nested);
        }
        for (const auto& target : panel.value("targets").toArray()) {
            expressions << target.toObject().value("expr").toString();
        }
    }
    ASSERT_GE(expressions.size(), 8);

    const QRegularExpression metric_name("\\b((?:quillon|process)_[a-z_]+)\\b");
    QString rules = "groups:\n- name: dashboard\n  rules:\n";
    int index = 0;
    for (const QString& expr : expressions) {
        auto names = metric_name.globalMatch(expr);
        EXPECT_TRUE(names.hasNext()) << "no metric in " << expr.toStdString();
        while (names.hasNext()) {
            QString name = names.next().captured(1);
            for (const char* suffix : {"_bucket", "_sum", "_count"}) {
                if (name.endsWith(suffix) &&
                    now.types.value(name.left(name.size() - int(strlen(suffix)))) == "histogram") {
                    name.chop(int(strlen(suffix)));
                }
            }
            EXPECT_TRUE(now.types.contains(name)) << name.toStdString() << " in " << expr.toStdString();
        }
        // Grafana's own variables, as it would fill them in.
        QString promql = expr;
        promql.replace("$__rate_interval", "1m").replace("$__interval", "1m").replace("$instance", "x");
        rules += QString("  - record: dashboard:query%1\n    expr: '%2'\n")
                     .arg(index++)
                     .arg(promql.replace("'", "''"));
    }
    if (QStandardPaths::findExecutable("promtool").isEmpty()) {
        GTEST_SKIP() << "promtool is not installed (scripts/install-deps)";
    }
    QTemporaryFile rules_file(m_dir.filePath("dashboard-XXXXXX.yml"));
    ASSERT_TRUE(rules_file.open());
    rules_file.write(rules.toUtf8());
    rules_file.close();
    QProcess check;
    check.setProcessChannelMode(QProcess::MergedChannels);
    check.start("promtool", {"check", "rules", rules_file.fileName()});
    ASSERT_TRUE(check.waitForFinished(30000));
    EXPECT_EQ(check.exitCode(), 0) << check.readAll().toStdString() << rules.toStdString();
}

// Every panel query of the dashboard, evaluated by a real Prometheus that scrapes the
// running service, answers with data.
TEST_F(MetricsE2E, DashboardQueriesAnswerFromARealPrometheus) {
    const QString prometheus = QStandardPaths::findExecutable("prometheus");
    if (prometheus.isEmpty()) {
        GTEST_SKIP() << "prometheus is not installed (scripts/install-deps)";
    }
    QFile file(QUILLON_SOURCE_DIR "/docs/grafana/quillon.json");
    ASSERT_TRUE(file.open(QIODevice::ReadOnly));
    QStringList expressions;
    QJsonArray panels = QJsonDocument::fromJson(file.readAll()).object().value("panels").toArray();
    for (const auto& panel : panels) {
        for (const auto& target : panel.toObject().value("targets").toArray()) {
            expressions << target.toObject().value("expr").toString();
        }
    }

    const int web_port = free_port();
    QDir dir(m_dir.path());
    dir.mkdir("prometheus");
    QFile config(dir.filePath("prometheus/prometheus.yml"));
    ASSERT_TRUE(config.open(QIODevice::WriteOnly));
    config.write(QString("global: {scrape_interval: 1s, evaluation_interval: 1s}\n"
                         "scrape_configs:\n"
                         "  - job_name: quillon\n"
                         "    static_configs: [{targets: ['127.0.0.1:%1']}]\n")
                     .arg(m_port)
                     .toUtf8());
    config.close();
    QProcess server;
    server.setProcessChannelMode(QProcess::MergedChannels);
    server.start(
        prometheus,
        {"--config.file=" + config.fileName(), "--storage.tsdb.path=" + dir.filePath("prometheus/data"),
         QString("--web.listen-address=127.0.0.1:%1").arg(web_port), "--log.level=warn"});
    ASSERT_TRUE(server.waitForStarted());
    struct stopper {
        QProcess& p;
        ~stopper() {
            p.terminate();
            if (!p.waitForFinished(15000)) {
                p.kill();
                p.waitForFinished();
            }
        }
    } stop_server{server};

    const auto query = [&](const QString& promql) {
        const QByteArray path = "/api/v1/query?query=" + QUrl::toPercentEncoding(promql);
        return QJsonDocument::fromJson(http_get(web_port, path.constData()).body).object();
    };
    ASSERT_TRUE(wait_until(
        [&] {
            const QJsonArray up =
                query("up{job=\"quillon\"} == 1").value("data").toObject().value("result").toArray();
            return !up.isEmpty();
        },
        60000))
        << server.readAll().toStdString();

    // Traffic for a while, so that rates have two samples and more to work on.
    int iterator = 0;
    QElapsedTimer traffic;
    traffic.start();
    while (traffic.elapsed() < 8000) {
        ++iterator;
        publish_uplink(modem(), volume_payload(uint32_t(100 + iterator)), iterator);
        wait_until([] { return false; }, 200);
    }
    EXPECT_FALSE(call("get_info", {}).isEmpty());
    ASSERT_TRUE(accepted(modem(), iterator));
    wait_until([] { return false; }, 3000);

    for (QString expr : expressions) {
        expr.replace("$__rate_interval", "20s").replace("$instance", ".*");
        const QJsonObject answer = query(expr);
        EXPECT_EQ(answer.value("status").toString(), "success")
            << expr.toStdString() << "\n"
            << QJsonDocument(answer).toJson().toStdString();
        EXPECT_FALSE(answer.value("data").toObject().value("result").toArray().isEmpty())
            << "no data for " << expr.toStdString();
    }
}

}  // namespace
}  // namespace e2e
