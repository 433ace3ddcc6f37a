#include <gtest/gtest.h>

#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>

#include "tests/plugins/plugin_dir.h"

namespace {

const QByteArray serves_marl2 = R"({"protocol": "proto7", "instances": ["marl2"]})";

QStringList loaded_names(const PluginsManager& manager) {
    QStringList names;
    for (const auto& entry : manager.driver_factories()) {
        names.append(QFileInfo(entry.path).fileName());
    }
    return names;
}

}  // namespace

TEST(PluginsManagerScan, TakesRealPluginFilesNamedPlugInNameOrderIgnoringCase) {
    plugin_dir dir;
    dir.add_driver("plug_B.so", serves_marl2);
    dir.add_driver("plug_a.so", serves_marl2);
    dir.add_driver("Plug_upper.so", serves_marl2);  // prefix is case-sensitive
    dir.add_driver("my_plug_c.so", serves_marl2);   // prefix only at position 0
    dir.write("plug_junk.so", "this is not a shared library");
    dir.write("plug_x.json", serves_marl2);
    ASSERT_TRUE(QFile::link(dir.file("plug_a.so"), dir.file("plug_x.so")));

    debug_capture debug;
    PluginsManager manager(dir.config(), dir.log());

    // Case-sensitive order would put plug_B first.
    EXPECT_EQ(loaded_names(manager), (QStringList{"plug_a.so", "plug_B.so"}));
    EXPECT_TRUE(debug.any_contains("loading plugin: \"" + dir.file("plug_junk.so") + "\""));
    EXPECT_FALSE(debug.any_contains(dir.file("plug_x.so")));
    EXPECT_FALSE(debug.any_contains("Plug_upper"));
    EXPECT_FALSE(debug.any_contains("my_plug_c"));
    EXPECT_TRUE(debug.any_contains("loading plugin config: \"" + dir.file("plug_a.json") + "\""));
    EXPECT_FALSE(manager.has_database());
}

TEST(PluginsManagerScan, ConfigurationIsTheBaseNameUpToTheFirstDot) {
    plugin_dir dir;
    dir.add_driver("plug_proto7.v2.so");
    dir.write("plug_proto7.json", R"({"protocol": "proto7", "label": "base"})");
    dir.write("plug_proto7.v2.json", R"({"label": "full name"})");
    dir.add_driver("plug_broken.so");
    dir.write("plug_broken.json", R"({"protocol": )");
    dir.add_driver("plug_array.so");
    dir.write("plug_array.json", R"([{"protocol": "proto7"}])");
    dir.add_driver("plug_missing.so");

    PluginsManager manager(dir.config(), dir.log());
    const auto& factories = manager.driver_factories();
    ASSERT_EQ(loaded_names(manager),
              (QStringList{"plug_array.so", "plug_broken.so", "plug_missing.so", "plug_proto7.v2.so"}));
    EXPECT_TRUE(factories[0].configuration.isEmpty());  // not an object
    EXPECT_TRUE(factories[1].configuration.isEmpty());  // not JSON
    EXPECT_TRUE(factories[2].configuration.isEmpty());  // no file
    EXPECT_EQ(factories[3].configuration, (QJsonObject{{"protocol", "proto7"}, {"label", "base"}}));

    const QJsonArray described = manager.describe_driver_factories();
    ASSERT_EQ(described.size(), 4);
    EXPECT_EQ(described[3].toObject().value("name").toString(), "test_driver");
    EXPECT_TRUE(described[3].toObject().value("configured").toBool());
    EXPECT_FALSE(described[2].toObject().value("configured").toBool());
}

TEST(PluginsManagerScan, ConfigurationPathNamingAJsonFileServesEveryDriver) {
    plugin_dir dir;
    dir.add_driver("plug_a.so", R"({"label": "own a"})");
    dir.add_driver("plug_b.so", R"({"label": "own b"})");
    dir.add_database("plug_db_driver_dummy.so", R"({"label": "database"})");
    dir.write("etc/drivers.json", R"({"label": "shared"})");

    PMConfig config = dir.config();
    config.plugin_config_path = dir.file("etc/drivers.json");
    debug_capture debug;
    PluginsManager manager(config, dir.log());

    ASSERT_EQ(manager.driver_factories().size(), 2);
    for (const auto& entry : manager.driver_factories()) {
        EXPECT_EQ(entry.configuration, (QJsonObject{{"label", "shared"}}));
    }
    // The database keeps its own configuration path.
    EXPECT_EQ(manager.database_configuration(), (QJsonObject{{"label", "database"}}));
    EXPECT_TRUE(debug.any_contains("loading plugin config: \"" + dir.file("etc/drivers.json") + "\""));
}

TEST(PluginsManagerScan, ConfigurationPathContainingJsonAnywhereIsTakenAsAFile) {
    plugin_dir dir;
    dir.add_driver("plug_a.so");
    dir.add_database("plug_db_driver_dummy.so");
    // A folder whose name contains ".json": it is opened as the file, which gives nothing.
    dir.write("conf.json.d/plug_a.json", serves_marl2);

    PMConfig config = dir.config();
    config.plugin_config_path = dir.file("conf.json.d");
    PluginsManager manager(config, dir.log());
    ASSERT_EQ(manager.driver_factories().size(), 1);
    EXPECT_TRUE(manager.driver_factories()[0].configuration.isEmpty());
    EXPECT_THROW(driver_report(manager), no_devive_type_implemented);
}
