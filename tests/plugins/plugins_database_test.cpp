#include <gtest/gtest.h>

#include <QFileInfo>
#include <QPluginLoader>
#include <stdexcept>

#include "tests/plugins/plugin_dir.h"

namespace {

// A database configuration whose seed names the file it came from.
QByteArray seed_from(const QString& origin) {
    return QString(R"({"devices": {"1": {"protocol": "%1", "hw_type": "h", "clients": []}}})")
        .arg(origin)
        .toUtf8();
}

QString seeded_origin(PluginsManager& manager) {
    const auto devices = manager.clients_database()->devices();
    return devices.count(1) ? devices.at(1).protocol : QString();
}

// The file the database plugin was taken from, checked against the root object that
// file itself gives.
QString database_file(const PluginsManager& manager) {
    const QString path = manager.database_plugin_path();
    QPluginLoader loader(path);
    EXPECT_EQ(manager.database_factory_instance(),
              qobject_cast<interfaces::IDatabaseFactory*>(loader.instance()))
        << path.toStdString();
    return QFileInfo(path).fileName();
}

}  // namespace

TEST(PluginsManagerDatabase, FallbackIsUsedUntilTheConfiguredPluginIsThere) {
    plugin_dir dir;
    dir.add_database("plug_db_driver_dummy.so", seed_from("dummy"));
    {
        PluginsManager manager(dir.config(), dir.log());
        EXPECT_EQ(database_file(manager), "plug_db_driver_dummy.so");
        EXPECT_EQ(seeded_origin(manager), "dummy");
    }
    dir.add_database("plug_db_driver_mongo.so", seed_from("mongo"));
    {
        debug_capture debug;
        PluginsManager manager(dir.config(), dir.log());
        EXPECT_EQ(database_file(manager), "plug_db_driver_mongo.so");
        EXPECT_EQ(seeded_origin(manager), "mongo");
        EXPECT_EQ(manager.database_configuration(), QJsonDocument::fromJson(seed_from("mongo")).object());
        EXPECT_TRUE(debug.lines().contains("true"));
        EXPECT_TRUE(debug.lines().contains("false"));
    }
    // The name test is case-sensitive: DB_NAME in capitals leaves the fallback in place.
    {
        PMConfig config = dir.config();
        config.db_name = "DB_DRIVER_MONGO";
        PluginsManager manager(config, dir.log());
        EXPECT_EQ(seeded_origin(manager), "dummy");
    }
    // Of several matching files the last one in directory order wins.
    dir.add_database("plug_db_driver_mongo2.so", seed_from("mongo2"));
    {
        PluginsManager manager(dir.config(), dir.log());
        EXPECT_EQ(database_file(manager), "plug_db_driver_mongo2.so");
        EXPECT_EQ(seeded_origin(manager), "mongo2");
    }
}

TEST(PluginsManagerDatabase, ADriverPluginWithTheDatabaseNameIsNoDatabase) {
    plugin_dir dir;
    dir.add_database("plug_db_driver_dummy.so", seed_from("dummy"));
    dir.add_driver("plug_db_driver_mongo.so", R"({"protocol": "proto7"})");
    PluginsManager manager(dir.config(), dir.log());
    EXPECT_EQ(database_file(manager), "plug_db_driver_dummy.so");
    ASSERT_EQ(manager.driver_factories().size(), 1);
}

TEST(PluginsManagerDatabase, ObjectsAreCreatedOnceAndShareOneStore) {
    plugin_dir dir;
    dir.add_database("plug_db_driver_dummy.so", seed_from("dummy"));
    PluginsManager manager(dir.config(), dir.log());

    EXPECT_EQ(manager.messages_database(), manager.messages_database());
    EXPECT_EQ(manager.eav_database(), manager.eav_database());
    EXPECT_EQ(manager.state_database(), manager.state_database());
    EXPECT_EQ(manager.clients_database(), manager.clients_database());

    manager.clients_database()->set_device(9, {"proto9", "hw9", {}});
    EXPECT_EQ(manager.state_database()->ids("*", "proto9"), QList<int>{9});

    // Another manager gets a store of its own, even from the same plugin file.
    PluginsManager other(dir.config(), dir.log());
    EXPECT_TRUE(other.state_database()->ids("*", "proto9").isEmpty());
    EXPECT_EQ(seeded_origin(other), "dummy");
}

TEST(PluginsManagerDatabase, NoDatabasePluginFailsNamingDbName) {
    plugin_dir dir;
    dir.add_driver("plug_proto7.so", R"({"protocol": "proto7"})");
    PMConfig config = dir.config();
    config.db_name = "db_driver_oracle";
    PluginsManager manager(config, dir.log());
    EXPECT_FALSE(manager.has_database());

    for (int i = 0; i < 4; ++i) {
        try {
            switch (i) {
                case 0:
                    manager.messages_database();
                    break;
                case 1:
                    manager.eav_database();
                    break;
                case 2:
                    manager.state_database();
                    break;
                default:
                    manager.clients_database();
            }
            ADD_FAILURE() << "no exception for object " << i;
        } catch (const std::runtime_error& error) {
            EXPECT_NE(std::string(error.what()).find("DB_NAME \"db_driver_oracle\""), std::string::npos)
                << error.what();
        }
    }
    EXPECT_TRUE(dir.log_text().contains(" Error "));
    EXPECT_TRUE(dir.log_text().contains("db_driver_oracle"));
}
