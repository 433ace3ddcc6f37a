// quillon-devices against a temporary SQLite store, run as the operator would.

#include <QCoreApplication>
#include <QFile>
#include <QJsonDocument>
#include <QProcess>
#include <QSettings>

#include "tests/databases/sqlite_support.h"

using namespace sqlite_test;

namespace {

struct tool_result {
    int exit_code = -1;
    QString out;
    QString err;
};

class DevicesTool : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(m_dir.isValid());
        m_store = m_dir.filePath("store.db");
        m_plugin_config = m_dir.filePath("sqlite.json");
        QFile file(m_plugin_config);
        ASSERT_TRUE(file.open(QIODevice::WriteOnly));
        file.write(QJsonDocument(config_for(m_store)).toJson());
    }

    // The tool with the plugin directory and database named on the command line.
    tool_result run(QStringList arguments, const QString& db = "db_driver_sqlite") {
        return run_raw(
            QStringList{"--plugin-dir", QUILLON_BIN_DIR, "--db", db, "--db-config", m_plugin_config} +
            arguments);
    }

    tool_result run_raw(const QStringList& arguments) {
        QProcess tool;
        tool.setWorkingDirectory(m_dir.path());
        tool.start(QUILLON_BIN_DIR "/quillon-devices", arguments);
        EXPECT_TRUE(tool.waitForFinished(60000)) << "quillon-devices did not finish";
        return {tool.exitStatus() == QProcess::NormalExit ? tool.exitCode() : -1,
                QString::fromUtf8(tool.readAllStandardOutput()),
                QString::fromUtf8(tool.readAllStandardError())};
    }

    QTemporaryDir m_dir;
    QString m_store;
    QString m_plugin_config;
};

}  // namespace

TEST_F(DevicesTool, AddsListsUpdatesAndRemovesDevices) {
    tool_result r = run({"list"});
    EXPECT_EQ(r.exit_code, 1);  // no store yet, and list does not create one
    EXPECT_TRUE(r.err.contains("does not exist")) << r.err.toStdString();
    EXPECT_FALSE(QFile::exists(m_store));

    r = run({"--create", "add", "77", "--protocol", "proto7", "--hw-type", "X", "--clients", "c1,c2"});
    EXPECT_EQ(r.exit_code, 0) << r.err.toStdString();
    r = run({"list"});
    EXPECT_EQ(r.exit_code, 0) << r.err.toStdString();
    EXPECT_EQ(r.out, "77\tproto7\tX\tc1,c2\t-/-/-/-\tno key\n");

    r = run({"update", "77", "--hw-type", "Y"});
    EXPECT_EQ(r.exit_code, 0) << r.err.toStdString();
    EXPECT_EQ(run({"list"}).out, "77\tproto7\tY\tc1,c2\t-/-/-/-\tno key\n");

    // The same store through the service's INI file.
    const QString ini = m_dir.filePath("quillon.ini");
    {
        QSettings settings(ini, QSettings::IniFormat);
        settings.beginGroup("PLUGIN_MANAGER_SETTINGS");
        settings.setValue("DB_NAME", "db_driver_sqlite");
        settings.setValue("PLUGIN_PATH", QUILLON_BIN_DIR);
        settings.setValue("PLUGIN_DB_CONFIG_PATH", m_plugin_config);
        settings.endGroup();
    }
    r = run_raw({"-c", ini, "add", "78", "--protocol", "other", "--hw-type", "Z"});
    EXPECT_EQ(r.exit_code, 0) << r.err.toStdString();
    EXPECT_EQ(run_raw({"-c", ini, "list"}).out,
              "77\tproto7\tY\tc1,c2\t-/-/-/-\tno key\n78\tother\tZ\t\t-/-/-/-\tno key\n");

    // What the tool wrote is what the service reads through the plugin.
    {
        stores s = open_stores(config_for(m_store));
        EXPECT_EQ(s.clients->clients_store().clients(77), (QStringList{"c1", "c2"}));
        EXPECT_EQ(s.clients->clients_store().device(78), std::make_pair(QString("other"), QString("Z")));
    }

    r = run({"remove", "77"});
    EXPECT_EQ(r.exit_code, 0) << r.err.toStdString();
    EXPECT_EQ(run({"list"}).out, "78\tother\tZ\t\t-/-/-/-\tno key\n");
    r = run({"remove", "77"});
    EXPECT_EQ(r.exit_code, 1);
    EXPECT_TRUE(r.err.contains("no device 77")) << r.err.toStdString();
    r = run({"update", "5", "--protocol", "p"});
    EXPECT_EQ(r.exit_code, 1);
}

TEST_F(DevicesTool, RefusesBadIdsBadCommandLinesAndUnknownPlugins) {
    tool_result r = run({"--create", "add", "7x", "--protocol", "p", "--hw-type", "h"});
    EXPECT_EQ(r.exit_code, 2);
    EXPECT_TRUE(r.err.contains("bad modem id \"7x\"")) << r.err.toStdString();
    EXPECT_EQ(run({"--create", "remove", "-3"}).exit_code, 2);
    EXPECT_EQ(run({"--create", "remove", "99999999999"}).exit_code, 2);
    EXPECT_EQ(run({"--create", "add", "7", "--protocol", "p"}).exit_code, 2);  // no --hw-type
    EXPECT_EQ(run({"--create", "frobnicate"}).exit_code, 2);
    EXPECT_FALSE(QFile::exists(m_store));

    r = run({"--create", "list"}, "db_driver_nope");
    EXPECT_EQ(r.exit_code, 1);
    EXPECT_TRUE(r.err.contains("no database plugin \"db_driver_nope\"")) << r.err.toStdString();

    r = run_raw({"--help"});
    EXPECT_EQ(r.exit_code, 0);
    EXPECT_TRUE(r.out.startsWith("Usage: quillon-devices")) << r.out.toStdString();
}

// A meter's key goes in through the tool (from stdin, out of the process list) and never
// comes out: list shows "key set", --json "aes_key_set"; a malformed key is refused
// without being repeated.
TEST_F(DevicesTool, KeysAreSetButNeverShown) {
    const char* key = "000102030405060708090A0B0C0D0E0F";
    tool_result r =
        run({"--create", "add", "79", "--protocol", "proto7", "--hw-type", "wmbus", "--aes-key", key,
             "--manufacturer", "amb", "--identification", "12345678", "--version", "0", "--medium", "0x03"});
    EXPECT_EQ(r.exit_code, 0) << r.err.toStdString();
    r = run({"list"});
    EXPECT_EQ(r.out, "79\tproto7\twmbus\t\tAMB/12345678/0/3\tkey set\n");
    r = run({"list", "--json"});
    const QJsonObject entry =
        QJsonDocument::fromJson(r.out.toUtf8()).object().value("devices").toObject().value("79").toObject();
    EXPECT_EQ(entry.value("aes_key_set"), QJsonValue(true));
    EXPECT_EQ(entry.value("manufacturer").toString(), "AMB");
    EXPECT_EQ(entry.value("medium").toInt(), 3);
    EXPECT_FALSE(r.out.contains(key, Qt::CaseInsensitive));
    EXPECT_FALSE(r.out.contains("000102030405", Qt::CaseInsensitive));
    EXPECT_EQ(sqlite_test::open_stores(config_for(m_store)).clients->meter_link(79).aes_key,
              QByteArray::fromHex(key));

    // From standard input; "none" removes it; other fields stay.
    QProcess tool;
    tool.setWorkingDirectory(m_dir.path());
    tool.start(QUILLON_BIN_DIR "/quillon-devices",
               {"--plugin-dir", QUILLON_BIN_DIR, "--db", "db_driver_sqlite", "--db-config", m_plugin_config,
                "update", "79", "--aes-key", "-"});
    tool.write("ffeeddccbbaa99887766554433221100\n");
    tool.closeWriteChannel();
    ASSERT_TRUE(tool.waitForFinished(60000));
    EXPECT_EQ(tool.exitCode(), 0) << tool.readAllStandardError().toStdString();
    EXPECT_EQ(sqlite_test::open_stores(config_for(m_store)).clients->meter_link(79).aes_key,
              QByteArray::fromHex("ffeeddccbbaa99887766554433221100"));
    EXPECT_EQ(run({"update", "79", "--aes-key", "none"}).exit_code, 0);
    EXPECT_EQ(run({"list"}).out, "79\tproto7\twmbus\t\tAMB/12345678/0/3\tno key\n");

    const char* bad = "000102030405060708090A0B0C0D0E0";
    r = run({"update", "79", "--aes-key", bad});
    EXPECT_EQ(r.exit_code, 2);
    EXPECT_TRUE(r.err.contains("\"aes_key\" must be 32 hex digits (16 bytes), got 31 characters"))
        << r.err.toStdString();
    EXPECT_FALSE(r.err.contains("0102030405"));
    r = run({"update", "79", "--version", "256"});
    EXPECT_EQ(r.exit_code, 2);
    EXPECT_TRUE(r.err.contains("--version must be a whole number from 0 to 255")) << r.err.toStdString();
    r = run({"update", "79", "--manufacturer", "AB"});
    EXPECT_EQ(r.exit_code, 2);
    EXPECT_TRUE(r.err.contains("three letters")) << r.err.toStdString();
}
