#include <gtest/gtest.h>

#include <QTemporaryDir>
#include <QTimer>
#include <csignal>
#include <stdexcept>

#include "app/Application.h"
#include "app/stop_application.h"
#include "test_support.h"

namespace {

// One Application per process: every check of the in-process shell runs on it.
TEST(ApplicationTest, StartsFromTheCommandLineAndStopsOnRequest) {
    QTemporaryDir dir;
    ASSERT_TRUE(dir.isValid());
    const QString ini = dir.filePath("quillon.ini");
    const QString log_path = dir.filePath("quillon.log");
    app_test::write_text(ini, "[GENERAL_SETTINGS]\nLOG_LEVEL=DEBUG\nLOG_FILE_PATH=" + log_path.toUtf8() +
                                  "\nUL_DL_TTL=2\n"
                                  "[PLUGIN_MANAGER_SETTINGS]\nPLUGIN_PATH=" QUILLON_BIN_DIR
                                  "\nPLUGIN_CONFIG_PATH=" QUILLON_BIN_DIR
                                  "\n"
                                  "DB_NAME=db_driver_dummy\n"
                                  "[AMQP_API_SETTINGS]\nR_BINDINGS=x:k1,broken\n");
    const QByteArray ini_arg = ini.toUtf8();
    char a0[] = "quillon", a1[] = "-c", a3[] = "-i", a4[] = "3", a5[] = "-n", a6[] = "2";
    char* argv[] = {a0, a1, const_cast<char*>(ini_arg.constData()), a3, a4, a5, a6, nullptr};
    int argc = 7;

    Application app(argc, argv);

    // Every record is filled from the file and the command line.
    const startup_records& r = app.records();
    EXPECT_EQ(app.log().log_name(), "proto7_marl2_3from2");
    EXPECT_EQ(r.settings->fileName(), ini);
    EXPECT_EQ(r.pm.db_name, "db_driver_dummy");
    EXPECT_EQ(r.general.ul_dl_ttl, 172800u);
    EXPECT_EQ(r.engine.instances, 3);
    EXPECT_EQ(r.engine.position, 2);
    EXPECT_EQ(r.engine.ul_dl_ttl, 172800u);
    EXPECT_GT(r.engine.start_time, 1600000000);
    EXPECT_EQ(r.receiver.queue, "test_parser_proto7_marl2_2from3");
    EXPECT_EQ(r.api.bindings.size(), 1);
    EXPECT_EQ(r.clients.exchange, "norvik.api");
    EXPECT_TRUE(r.dl.url.isEmpty());  // AMQP_DL_SETTINGS is not read at start-up
    EXPECT_EQ(r.log, &app.log());
    EXPECT_EQ(r.parent, &app);

    // Another exception from an event is swallowed and the loop goes on; stop_application ends it.
    bool after_swallowed = false;
    QTimer::singleShot(0, [] { throw std::runtime_error("boom in a handler"); });
    QTimer::singleShot(20, [&] {
        after_swallowed = true;
        throw stop_application();
    });
    QTimer::singleShot(5000, [] { QCoreApplication::exit(7); });  // guard against a loop that never ends
    EXPECT_EQ(QCoreApplication::exec(), 0);
    EXPECT_TRUE(after_swallowed);

    // SIGTERM ends the loop the same way, through the event loop.
    QTimer::singleShot(0, [] { ::raise(SIGTERM); });
    QTimer::singleShot(5000, [] { QCoreApplication::exit(7); });
    EXPECT_EQ(QCoreApplication::exec(), 0);

    const QString log_text = QString::fromUtf8(app_test::read_text(log_path));
    EXPECT_TRUE(log_text.contains(" Error proto7_marl2_3from2: ") && log_text.contains("broken"))
        << log_text.toStdString();
    EXPECT_TRUE(log_text.contains("boom in a handler")) << log_text.toStdString();
    EXPECT_TRUE(log_text.contains("signal 15")) << log_text.toStdString();
}

}  // namespace
