#include <gtest/gtest.h>

#include "tests/plugins/plugin_dir.h"

namespace {

QString address(const void* pointer) {
    return QString::number(reinterpret_cast<quintptr>(pointer));
}

}  // namespace

TEST(PluginsManagerDriver, ProtocolAndInstanceMatchIgnoringCase) {
    plugin_dir dir;
    dir.add_database("plug_db_driver_dummy.so");
    dir.add_driver("plug_proto7.so", R"({"protocol": "proto7", "instances": ["Marl2"], "label": "p7"})");

    PMConfig config = dir.config();
    config.protocol = "PROTO7";
    config.instance_names = QStringList{"MARL2"};
    PluginsManager manager(config, dir.log());

    const QJsonObject report = driver_report(manager, 3600, 2);
    // The pair as the factory reports it.
    EXPECT_EQ(report.value("protocol").toString(), "proto7");
    EXPECT_EQ(report.value("instance").toString(), "Marl2");
    EXPECT_EQ(report.value("configuration").toObject().value("label").toString(), "p7");
    EXPECT_EQ(report.value("ttl").toInt(), 3600);
    EXPECT_EQ(report.value("position").toInt(), 2);
    EXPECT_EQ(report.value("sent").toObject(), (QJsonObject{{"to", 5}}));

    // prepare() came first, with the pair and the very objects the manager caches.
    const QJsonObject prepared = report.value("prepared").toObject();
    EXPECT_EQ(prepared.value("instance").toString(), "Marl2");
    EXPECT_EQ(prepared.value("state").toString(), address(manager.state_database().get()));
    EXPECT_EQ(prepared.value("clients").toString(), address(manager.clients_database().get()));
    EXPECT_EQ(prepared.value("messages").toString(), address(manager.messages_database().get()));
    EXPECT_EQ(report.value("state").toString(), address(manager.state_database().get()));
    EXPECT_EQ(report.value("eav").toString(), address(manager.eav_database().get()));
}

TEST(PluginsManagerDriver, OnlyTheFirstInstanceNameIsMatched) {
    plugin_dir dir;
    dir.add_database("plug_db_driver_dummy.so");
    dir.add_driver("plug_a.so", R"({"instances": ["marl2"], "label": "a"})");
    PMConfig config = dir.config();
    config.instance_names = QStringList{"other", "marl2"};
    {
        PluginsManager manager(config, dir.log());
        EXPECT_THROW(driver_report(manager), no_devive_type_implemented);
        EXPECT_TRUE(dir.log_text().contains("proto7"));
    }
    dir.add_driver("plug_b.so", R"({"instances": ["x", "other"], "label": "b"})");
    PluginsManager manager(config, dir.log());
    const QJsonObject report = driver_report(manager);
    EXPECT_EQ(report.value("configuration").toObject().value("label").toString(), "b");
    EXPECT_EQ(report.value("instance").toString(), "other");
}

TEST(PluginsManagerDriver, FirstConfiguredFactoryInLoadOrderWins) {
    plugin_dir dir;
    dir.add_database("plug_db_driver_dummy.so");
    dir.add_driver("plug_c.so", R"({"label": "c"})");
    dir.add_driver("plug_b.so", R"({"protocol": "proto9", "label": "b"})");
    // Without its JSON file this one would serve (proto7, marl2), but it is never asked.
    dir.add_driver("plug_a.so");

    PluginsManager manager(dir.config(), dir.log());
    ASSERT_EQ(manager.driver_factories().size(), 3);
    EXPECT_EQ(driver_report(manager).value("configuration").toObject().value("label").toString(), "c");
}

TEST(PluginsManagerDriver, NoServingFactoryThrows) {
    plugin_dir dir;
    dir.add_database("plug_db_driver_dummy.so");
    {
        PluginsManager manager(dir.config(), dir.log());
        EXPECT_THROW(driver_report(manager), no_devive_type_implemented);
    }
    dir.add_driver("plug_a.so");  // no configuration
    dir.add_driver("plug_b.so", R"({"protocol": "proto8"})");
    PluginsManager manager(dir.config(), dir.log());
    try {
        driver_report(manager);
        ADD_FAILURE() << "a driver was created";
    } catch (const no_devive_type_implemented& error) {
        EXPECT_STRNE(error.what(), "");
        const std::exception& base = error;
        EXPECT_NE(std::string(base.what()).find("proto7"), std::string::npos);
    }
}
