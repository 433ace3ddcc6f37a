#include <gtest/gtest.h>

#include "app/command_line.h"
#include "test_support.h"

namespace {

struct parsed {
    bool ok = false;
    QString config;
    int instances = -1;
    int position = -1;
};

parsed parse(QStringList arguments) {
    app_test::core_app();
    QCommandLineParser parser;
    command_line::register_options(parser);
    arguments.prepend("quillon");
    parsed result;
    result.ok = parser.parse(arguments);
    result.config = command_line::config_path(parser);
    result.instances = command_line::instances(parser);
    result.position = command_line::position(parser);
    return result;
}

TEST(CommandLineTest, DefaultsWithoutArguments) {
    const parsed p = parse({});
    ASSERT_TRUE(p.ok);
    EXPECT_EQ(p.config, "quillon.ini");
    EXPECT_EQ(p.instances, 1);
    EXPECT_EQ(p.position, 0);
}

TEST(CommandLineTest, ValuesAreTakenAsGiven) {
    const parsed p = parse({"-c", "conf/some.ini", "-i", "3", "-n", "2"});
    ASSERT_TRUE(p.ok);
    EXPECT_EQ(p.config, "conf/some.ini");  // relative path kept unchanged
    EXPECT_EQ(p.instances, 3);
    EXPECT_EQ(p.position, 2);
}

TEST(CommandLineTest, NumbersThatDoNotParseGiveZero) {
    EXPECT_EQ(parse({"-n", "abc"}).position, 0);
    EXPECT_EQ(parse({"-i", "abc"}).instances, 0);
    EXPECT_EQ(parse({"-i", "0x10"}).instances, 0);  // decimal only
    EXPECT_EQ(parse({"-n", "010"}).position, 10);
    EXPECT_EQ(parse({"-n", "-1"}).position, -1);
}

TEST(CommandLineTest, UnknownOptionIsAParseError) {
    EXPECT_FALSE(parse({"-x"}).ok);
}

TEST(CommandLineTest, HelpShowsTheCrossedValueNames) {
    app_test::core_app();
    QCommandLineParser parser;
    command_line::register_options(parser);
    const QString help = parser.helpText();
    EXPECT_TRUE(help.contains("-c <config>")) << help.toStdString();
    EXPECT_TRUE(help.contains("-i <inst>")) << help.toStdString();
    EXPECT_TRUE(help.contains("-n <ninst>")) << help.toStdString();
    EXPECT_TRUE(help.contains("Config file (quillon.ini by default)"));
    EXPECT_TRUE(help.contains("Instances number"));
    EXPECT_TRUE(help.contains("Instance position"));
    EXPECT_TRUE(help.contains("--help"));
    EXPECT_TRUE(help.contains("--version"));
    // Registered in this order.
    EXPECT_LT(help.indexOf("-c <config>"), help.indexOf("-i <inst>"));
    EXPECT_LT(help.indexOf("-i <inst>"), help.indexOf("-n <ninst>"));
}

}  // namespace
