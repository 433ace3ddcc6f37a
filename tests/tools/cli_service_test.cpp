// quillon-cli against the real service on the private broker.
#include <gtest/gtest.h>
#include <QCoreApplication>
#include <QJsonArray>
#include <QJsonDocument>
#include <QRegularExpression>
#include <memory>

#include "tests/support/service_harness.h"
#include "tests/tools/tool_process.h"

using tools_test::run_tool;
using tools_test::tool_result;

namespace {

QJsonObject json_of(const QString& text) {
    return QJsonDocument::fromJson(text.toUtf8()).object();
}

class CliAgainstService : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        s_service = std::make_unique<e2e::service_process>();
        s_service->set_database(
            "db_driver_dummy",
            QJsonObject{
                {"devices", QJsonObject{{"77", QJsonObject{{"protocol", "proto7"}, {"hw_type", "X"}}}}}});
        s_service->set("GENERAL_SETTINGS", "DL_QUEUES", "true");
        s_started = s_service->start();
    }

    static void TearDownTestSuite() { s_service.reset(); }

    void SetUp() override { ASSERT_TRUE(s_started) << s_service->log().toStdString(); }

    // The tool reads broker, exchange and command key from the service's own INI file.
    static tool_result cli(const QStringList& arguments, const QByteArray& input = {}) {
        return run_tool("quillon-cli",
                        QStringList{"-c", s_service->working_dir() + "/quillon.ini"} + arguments, input);
    }

    static std::unique_ptr<e2e::service_process> s_service;
    static bool s_started;
};

std::unique_ptr<e2e::service_process> CliAgainstService::s_service;
bool CliAgainstService::s_started = false;

TEST_F(CliAgainstService, GetInfoPrintsTheResponseDataAsIndentedJson) {
    const tool_result r = cli({"get_info"});
    ASSERT_EQ(r.status, 0) << r.err.toStdString();
    const QJsonObject info = json_of(r.out).value("proto7:marl2").toObject();
    EXPECT_EQ(info.value("version").toString(), "1.1.43") << r.out.toStdString();
    EXPECT_EQ(info.value("db plugin").toString(), "db_driver_dummy");
    // Indented by four blanks, and without colours when the output is not a terminal.
    EXPECT_TRUE(r.out.contains("\n        \"version\": \"1.1.43\"")) << r.out.toStdString();
    EXPECT_FALSE(r.out.contains('\x1b'));
    EXPECT_TRUE(r.err.isEmpty()) << r.err.toStdString();

    const tool_result whole = cli({"get_info", "--envelope"});
    ASSERT_EQ(whole.status, 0) << whole.err.toStdString();
    const QJsonObject response = json_of(whole.out);
    EXPECT_EQ(response.value("msg_type").toString(), "response") << whole.out.toStdString();
    EXPECT_FALSE(response.value("cmd_id").toString().isEmpty());
    EXPECT_TRUE(response.value("data").toObject().contains("proto7:marl2"));
}

TEST_F(CliAgainstService, BodyFromStandardInputFromAnArgumentAndFromOptions) {
    const tool_result from_stdin = cli({"device", "--body", "-"}, R"({"modem_id": [77]})");
    ASSERT_EQ(from_stdin.status, 0) << from_stdin.err.toStdString();
    EXPECT_EQ(json_of(from_stdin.out), (QJsonObject{{"77", QJsonObject{{"supported", true}}}}))
        << from_stdin.out.toStdString();

    const tool_result explicit_body = cli({"send", "dl_queue", R"({"77": {"action": "get"}})"});
    ASSERT_EQ(explicit_body.status, 0) << explicit_body.err.toStdString();
    const QJsonObject queues = json_of(explicit_body.out).value("77").toObject();
    EXPECT_EQ(queues.value("action").toString(), "get") << explicit_body.out.toStdString();
    EXPECT_EQ(queues.value("status").toString(), "ok");

    const tool_result options = cli({"device", "--modem", "77,78"});
    ASSERT_EQ(options.status, 0) << options.err.toStdString();
    // 78 is not a device of this service's driver: the service leaves it out.
    EXPECT_EQ(json_of(options.out).keys(), QStringList{"77"}) << options.out.toStdString();
}

TEST_F(CliAgainstService, UnansweredCommandTimesOutWithStatusTwo) {
    const tool_result r = cli({"no_such_command", "--timeout", "2"});
    EXPECT_EQ(r.status, 2);
    EXPECT_TRUE(r.out.isEmpty()) << r.out.toStdString();
    EXPECT_TRUE(
        r.err.contains("no response within 2 s; the service may have rejected the command, see its log"))
        << r.err.toStdString();
    EXPECT_TRUE(r.err.contains("'no_such_command' is not one of the service's commands"))
        << r.err.toStdString();
    EXPECT_TRUE(e2e::wait_until([] { return s_service->log().contains("no_such_command does not exist"); }))
        << s_service->log().toStdString();
}

// The envelope as it reaches the command queue: options mapped into "data", a reply key
// in "sender" and a braced command id.
TEST(CliEnvelope, OptionsBecomeTheBodyAndTheReplyKeyTheSender) {
    const QString key = e2e::unique_name("cmd.in.cli_test");
    e2e::probe commands({key});
    ASSERT_TRUE(commands.wait_ready());
    QProcess process;
    tools_test::start_tool(process, "quillon-cli",
                           {"--url",
                            e2e::broker_url(),
                            "--vhost",
                            "/api",
                            "--exchange",
                            "norvik.api",
                            "--key",
                            key,
                            "--timeout",
                            "1",
                            "get_eav_value",
                            "--modem",
                            "77",
                            "--modem",
                            "78,79",
                            "--from",
                            "2026-01-01",
                            "--to",
                            "1767312000",
                            "--limit",
                            "10",
                            "--tag",
                            "mbus",
                            "--obis",
                            "volume,volume_flow",
                            "--step",
                            "60",
                            "--set",
                            "fill=last",
                            "--set",
                            "first_and_last=false",
                            "--set",
                            R"(extra={"a":[1]})"});
    ASSERT_TRUE(commands.wait_for(1));
    const tool_result r = tools_test::finish_tool(process);
    EXPECT_EQ(r.status, 2) << r.err.toStdString();

    const QJsonObject envelope = commands.messages().front().json();
    EXPECT_EQ(envelope.value("msg_type").toString(), "get_eav_value");
    EXPECT_TRUE(envelope.value("sender").toString().startsWith("quillon-cli.reply."));
    EXPECT_TRUE(QRegularExpression("^\\{[0-9a-f]{8}-[0-9a-f]{4}-[0-9a-f]{4}-[0-9a-f]{4}-[0-9a-f]{12}\\}$")
                    .match(envelope.value("cmd_id").toString())
                    .hasMatch());
    const QJsonObject expected{{"modem_id", QJsonArray{77, 78, 79}},
                               {"from", 1767225600},
                               {"to", 1767312000},
                               {"limit", 10},
                               {"tag", QJsonArray{"mbus"}},
                               {"obis_codes", QJsonArray{"volume", "volume_flow"}},
                               {"step", 60},
                               {"fill", "last"},
                               {"first_and_last", false},
                               {"extra", QJsonObject{{"a", QJsonArray{1}}}}};
    EXPECT_EQ(envelope.value("data").toObject(), expected) << QJsonDocument(envelope).toJson().toStdString();
}

}  // namespace
