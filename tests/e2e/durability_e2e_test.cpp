#include <gtest/gtest.h>
#include <QJsonArray>

#include "plugins/PluginsManager.h"
#include "tests/support/service_harness.h"

namespace {

QJsonObject uplink(int modem, int iterator) {
    return QJsonObject{{"msg_type", "ul_app"},
                       {"modem_id", modem},
                       {"protocol", "proto7"},
                       {"hw_type", "X"},
                       {"payload", "78041339300000"},
                       {"iterator", iterator},
                       {"time_detected", 1900000000 + iterator}};
}

// What the SQLite store holds for a modem, read by a fresh plugin manager.
size_t stored_uplinks(const QString& config_dir, logger& log, int modem) {
    PMConfig pm;
    pm.db_name = "db_driver_sqlite";
    pm.plugin_path = QUILLON_BIN_DIR;
    pm.plugin_config_path = QUILLON_BIN_DIR;
    pm.plugin_db_config_path = config_dir;
    PluginsManager plugins(pm, log);
    model::roll_query query;
    query.modem_id = {modem};
    query.from = QDateTime::fromSecsSinceEpoch(0, Qt::UTC);
    query.to = QDateTime::fromSecsSinceEpoch(2000000000, Qt::UTC);
    query.limit = 0;
    model::per_modem<model::ul_message> out;
    plugins.messages_database()->ul().get_roll(out, query);
    return out[modem].size();
}

TEST(Durability, AcknowledgedUplinksSurviveAKilledProcess) {
    QTemporaryDir dir;
    logger log(dir.filePath("test.log"), Debug, "test");
    e2e::service_process service;
    service.set_database("db_driver_sqlite", QJsonObject{{"path", service.working_dir() + "/quillon.db"}});
    ASSERT_TRUE(service.start()) << service.log().toStdString();

    e2e::sender sender(log);
    ASSERT_TRUE(sender.wait_ready());
    constexpr int count = 20;
    for (int i = 1; i <= count; ++i) {
        sender.publish("nc.0.ul.marl2.proto7.77", uplink(77, i));
    }
    ASSERT_TRUE(e2e::wait_until([&] { return service.log().count(" accepted: ") >= count; }))
        << service.log().toStdString();
    service.kill_hard();

    EXPECT_EQ(stored_uplinks(service.working_dir(), log, 77), static_cast<size_t>(count));
}

}  // namespace
