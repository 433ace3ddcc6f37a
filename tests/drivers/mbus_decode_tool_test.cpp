// quillon-decode run as a process: JSON lines for good payloads, a non-zero exit and a
// message on stderr for bad input or a missing driver.
#include <gtest/gtest.h>

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>

namespace {

struct run_result {
    int exit_code = -1;
    QByteArray out;
    QByteArray err;
};

run_result run(const QStringList& args) {
    QProcess p;
    p.start(QUILLON_BIN_DIR "/quillon-decode", args);
    EXPECT_TRUE(p.waitForFinished(60000));
    return {p.exitStatus() == QProcess::NormalExit ? p.exitCode() : -1, p.readAllStandardOutput(),
            p.readAllStandardError()};
}

QList<QByteArray> lines(const QByteArray& out) {
    QList<QByteArray> result = out.split('\n');
    result.removeAll(QByteArray());
    return result;
}

TEST(MbusDecodeTool, GoodPayloadGivesOneJsonLine) {
    const run_result r = run({"--time-detected", "1700000000", "78041339300000"});
    ASSERT_EQ(r.exit_code, 0) << r.err.toStdString();
    const QList<QByteArray> out = lines(r.out);
    ASSERT_EQ(out.size(), 1);
    const QJsonObject o = QJsonDocument::fromJson(out[0]).object();
    EXPECT_EQ(o["payload"].toString(), "78041339300000");
    const QJsonObject message = o["message"].toObject();
    EXPECT_EQ(message["parse_status"].toString(), "parsed");
    EXPECT_EQ(message["tag"].toString(), "mbus");
    EXPECT_EQ(message["time_detected"].toInt(), 1700000000);
    const QJsonArray values = o["values"].toArray();
    ASSERT_EQ(values.size(), 1);
    EXPECT_EQ(values[0].toObject()["obis_code"].toString(), "volume");
    EXPECT_DOUBLE_EQ(values[0].toObject()["value"].toDouble(), 12.345);
    EXPECT_EQ(values[0].toObject()["timestamp"].toInt(), 1700000000);
    EXPECT_TRUE(o["events"].toArray().isEmpty());
}

// The published short-header example (AMB8426-M manual) with its key and address; a bad
// key is refused without being repeated.
TEST(MbusDecodeTool, EncryptedPayloadWithTheMetersKey) {
    const QString meter = R"({"aes_key": "000102030405060708090A0B0C0D0E0F", "manufacturer": "AMB",
                              "identification": "12345678", "version": 0, "medium": 3})";
    run_result r = run({"--meter", meter, "7a350010051e34c77cfe6c59b154b663297fe6c3f7"});
    ASSERT_EQ(r.exit_code, 0) << r.err.toStdString();
    QJsonObject message = QJsonDocument::fromJson(lines(r.out).value(0)).object()["message"].toObject();
    EXPECT_EQ(message["parse_status"].toString(), "parsed");
    const QJsonArray records = message["data"].toObject()["records"].toArray();
    ASSERT_EQ(records.size(), 1);
    EXPECT_EQ(records[0].toObject()["unit"].toString(), "ENC TEST");
    EXPECT_FALSE(r.out.toLower().contains("000102030405060708090a0b0c0d0e0f"));

    r = run({"7a350010051e34c77cfe6c59b154b663297fe6c3f7"});
    message = QJsonDocument::fromJson(lines(r.out).value(0)).object()["message"].toObject();
    EXPECT_EQ(message["parse_status"].toString(), "encrypted");

    r = run({"--meter", R"({"aes_key": "0001020304050607"})", "7a350010051e34c77cfe6c59b154b663297fe6c3f7"});
    EXPECT_EQ(r.exit_code, 2);
    EXPECT_TRUE(r.err.contains("must be 32 hex digits")) << r.err.toStdString();
    EXPECT_FALSE(r.err.contains("0001020304050607"));
}

TEST(MbusDecodeTool, OneLinePerPayloadWithEvents) {
    const run_result r = run({"--modem-id", "12", "78041339300000", "7a01040000"});
    ASSERT_EQ(r.exit_code, 0) << r.err.toStdString();
    const QList<QByteArray> out = lines(r.out);
    ASSERT_EQ(out.size(), 2);
    const QJsonObject second = QJsonDocument::fromJson(out[1]).object();
    EXPECT_EQ(second["message"].toObject()["modem_id"].toInt(), 12);
    const QJsonArray events = second["events"].toArray();
    ASSERT_EQ(events.size(), 1);
    EXPECT_EQ(events[0].toObject()["event_code"].toInt(), 4);
    EXPECT_EQ(events[0].toObject()["message"].toString(), "power low");
}

TEST(MbusDecodeTool, DecodingErrorIsAStatusNotAFailure) {
    const run_result r = run({"5100"});
    ASSERT_EQ(r.exit_code, 0) << r.err.toStdString();
    const QJsonObject o = QJsonDocument::fromJson(lines(r.out).value(0)).object();
    EXPECT_EQ(o["message"].toObject()["parse_status"].toString(),
              "error: unsupported CI field 0x51 at byte 0");
}

TEST(MbusDecodeTool, PrettyOutputIsIndented) {
    const run_result r = run({"--pretty", "78041339300000"});
    ASSERT_EQ(r.exit_code, 0) << r.err.toStdString();
    EXPECT_GT(lines(r.out).size(), 5);
    EXPECT_TRUE(QJsonDocument::fromJson(r.out).isObject());
}

TEST(MbusDecodeTool, BadHexFailsWithoutOutput) {
    for (const char* bad : {"zz", "780", "78 04"}) {
        const run_result r = run({"78041339300000", bad});
        EXPECT_NE(r.exit_code, 0) << bad;
        EXPECT_TRUE(r.out.isEmpty()) << bad;
        EXPECT_TRUE(r.err.contains("not a hex payload")) << r.err.toStdString();
    }
}

TEST(MbusDecodeTool, MissingDriverFails) {
    const run_result r = run({"--protocol", "no_such_protocol", "78041339300000"});
    EXPECT_NE(r.exit_code, 0);
    EXPECT_TRUE(r.out.isEmpty());
    EXPECT_TRUE(r.err.contains("no driver for protocol 'no_such_protocol'")) << r.err.toStdString();
}

TEST(MbusDecodeTool, MissingPluginDirectoryFails) {
    const run_result r = run({"--plugin-dir", "/nonexistent/quillon", "78041339300000"});
    EXPECT_NE(r.exit_code, 0);
    EXPECT_FALSE(r.err.isEmpty());
}

TEST(MbusDecodeTool, NoPayloadFails) {
    const run_result r = run({});
    EXPECT_NE(r.exit_code, 0);
    EXPECT_FALSE(r.err.isEmpty());
}

}  // namespace
