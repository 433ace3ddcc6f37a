// quillon-watch against the real service on the private broker: the lines printed for
// the client publications of one uplink, with plain and with wrapped bodies.
#include <gtest/gtest.h>
#include <QCoreApplication>
#include <QJsonArray>
#include <QJsonDocument>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QThread>
#include <memory>

#include "tests/support/service_harness.h"
#include "tests/tools/tool_process.h"

namespace {

// CI 0x78, one record: 32-bit volume in litres, 12345 l.
const char* const volume_payload = "78041339300000";

class WatchAgainstService : public ::testing::TestWithParam<bool> {
protected:
    void SetUp() override {
        // A client of its own, so that publications of other services on the broker stay out.
        m_client = e2e::unique_name("watch_client");
        m_service.set_database(
            "db_driver_dummy",
            QJsonObject{{"devices", QJsonObject{{"77", QJsonObject{{"protocol", "proto7"},
                                                                   {"hw_type", "X"},
                                                                   {"clients", QJsonArray{m_client}}}}}}});
        // An uplink key of its own, so that other services on the broker do not take the uplink.
        m_ul_id = e2e::unique_name("watch_ul");
        m_service.set("GENERAL_SETTINGS", "R_UL_ID", m_ul_id);
        m_service.set("GENERAL_SETTINGS", "UL_CLIENT_SEND_MSQ_TYPE_WRAPE", GetParam() ? "true" : "false");
        ASSERT_TRUE(m_service.start()) << m_service.log().toStdString();
        m_log = std::make_unique<logger>(m_dir.filePath("test.log"), Debug, "test");
        m_sender = std::make_unique<e2e::sender>(*m_log);
        ASSERT_TRUE(m_sender->wait_ready());
    }

    // Starts quillon-watch on the service's INI file and waits until it listens.
    void start_watch(QProcess& watch, const QStringList& extra) {
        tools_test::start_tool(watch, "quillon-watch",
                               QStringList{"-c", m_service.working_dir() + "/quillon.ini", "--key",
                                           m_client + ".#", "--count", "2"} +
                                   extra);
        watch.setReadChannel(QProcess::StandardError);
        ASSERT_TRUE(
            e2e::wait_until([&] { return watch.canReadLine() || watch.state() != QProcess::Running; }));
        m_ready_line = QString::fromUtf8(watch.readLine());
        watch.setReadChannel(QProcess::StandardOutput);
        ASSERT_TRUE(m_ready_line.startsWith("quillon-watch: watching exchange norvik.api"))
            << m_ready_line.toStdString();
    }

    void publish_uplink() {
        m_sender->publish("nc.0.ul.marl2.proto7." + m_ul_id, QJsonObject{{"msg_type", "ul_app"},
                                                                         {"modem_id", 77},
                                                                         {"protocol", "proto7"},
                                                                         {"hw_type", "X"},
                                                                         {"payload", volume_payload},
                                                                         {"iterator", 1},
                                                                         {"time_detected", 1900000000}});
    }

    QTemporaryDir m_dir;
    QString m_client;
    QString m_ul_id;
    QString m_ready_line;
    e2e::service_process m_service;
    std::unique_ptr<logger> m_log;
    std::unique_ptr<e2e::sender> m_sender;
};

TEST_P(WatchAgainstService, PrintsOneLinePerPublicationAndEndsAfterTheCount) {
    QProcess watch;
    start_watch(watch, {});
    publish_uplink();
    const tools_test::tool_result r = tools_test::finish_tool(watch);
    ASSERT_EQ(r.status, 0) << r.err.toStdString() << m_service.log().toStdString();

    const QStringList lines = r.out.split('\n', Qt::SkipEmptyParts);
    ASSERT_EQ(lines.size(), 2) << r.out.toStdString();
    const QString value_key = m_client + ".0.ul_eav.X.mbus.volume.77";
    const QString roll_key = m_client + ".0.ul_roll.X.mbus.null.77";
    // The unit comes from the driver's metadata, asked of the service at start.
    EXPECT_TRUE(lines[0].endsWith("  " + value_key + "  modem 77  volume = 12.345 m3"))
        << lines[0].toStdString();
    EXPECT_TRUE(lines[1].contains("  " + roll_key + "  modem 77  roll tag mbus, parse_status parsed"))
        << lines[1].toStdString();
    // Each line begins with the arrival time.
    EXPECT_TRUE(
        QRegularExpression("^\\d{4}-\\d{2}-\\d{2} \\d{2}:\\d{2}:\\d{2}  ").match(lines[0]).hasMatch());
}

TEST_P(WatchAgainstService, NoUnitsPrintsTheValuesAlone) {
    QProcess watch;
    start_watch(watch, {"--no-units"});
    publish_uplink();
    const tools_test::tool_result r = tools_test::finish_tool(watch);
    ASSERT_EQ(r.status, 0) << r.err.toStdString();
    const QStringList lines = r.out.split('\n', Qt::SkipEmptyParts);
    ASSERT_EQ(lines.size(), 2) << r.out.toStdString();
    EXPECT_TRUE(lines[0].endsWith("  modem 77  volume = 12.345")) << lines[0].toStdString();
}

// A service that does not answer get_metadata (here: the command key leads nowhere) costs
// the units only, after one line on stderr; a publication sent meanwhile is not lost.
TEST_P(WatchAgainstService, WithoutAnAnswerTheValuesArePrintedWithoutUnits) {
    QFile ini(m_service.working_dir() + "/quillon.ini");
    ASSERT_TRUE(ini.open(QIODevice::ReadOnly));
    QByteArray text = ini.readAll();
    ini.close();
    const QByteArray bindings = "R_BINDINGS=\"norvik.api:" + m_service.command_key().toUtf8() + "\"";
    ASSERT_TRUE(text.contains(bindings)) << text.toStdString();
    text.replace(bindings, "R_BINDINGS=norvik.api:nobody.home");
    const QString silent = m_dir.filePath("silent.ini");
    QFile out(silent);
    ASSERT_TRUE(out.open(QIODevice::WriteOnly));
    out.write(text);
    out.close();

    QProcess watch;
    tools_test::start_tool(
        watch, "quillon-watch",
        {"-c", silent, "--key", m_client + ".#", "--count", "2", "--metadata-timeout", "2"});
    ASSERT_TRUE(e2e::wait_until([&] { return watch.state() == QProcess::Running; }));
    QThread::msleep(500);  // the watching queue is up, the question still open
    publish_uplink();
    const tools_test::tool_result r = tools_test::finish_tool(watch);
    ASSERT_EQ(r.status, 0) << r.err.toStdString();
    EXPECT_TRUE(
        r.err.contains("quillon-watch: no units from the service (get_metadata on norvik.api / "
                       "nobody.home): values are printed without units"))
        << r.err.toStdString();
    const QStringList lines = r.out.split('\n', Qt::SkipEmptyParts);
    ASSERT_EQ(lines.size(), 2) << r.out.toStdString();
    EXPECT_TRUE(lines[0].endsWith("  modem 77  volume = 12.345")) << lines[0].toStdString();
}

TEST_P(WatchAgainstService, JsonPrintsTheBodiesAsTheyCame) {
    QProcess watch;
    start_watch(watch, {"--json"});
    publish_uplink();
    const tools_test::tool_result r = tools_test::finish_tool(watch);
    ASSERT_EQ(r.status, 0) << r.err.toStdString();

    const QStringList lines = r.out.split('\n', Qt::SkipEmptyParts);
    ASSERT_EQ(lines.size(), 2) << r.out.toStdString();
    QJsonObject value = QJsonDocument::fromJson(lines[0].toUtf8()).object();
    if (GetParam()) {
        EXPECT_EQ(value.value("msg_type").toString(), "quillon_ul_client_eav_value");
        value = value.value("data").toObject();
    } else {
        EXPECT_FALSE(value.contains("msg_type"));
    }
    EXPECT_EQ(value.value("obis_code").toString(), "volume");
    EXPECT_DOUBLE_EQ(value.value("value").toDouble(), 12.345);
}

INSTANTIATE_TEST_SUITE_P(PlainAndWrapped, WatchAgainstService, ::testing::Values(false, true),
                         [](const ::testing::TestParamInfo<bool>& info) {
                             return info.param ? "Wrapped" : "Plain";
                         });

}  // namespace
