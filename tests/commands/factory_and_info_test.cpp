#include <gtest/gtest.h>
#include <QCoreApplication>
#include <QJsonArray>
#include <QTimer>
#include <stdexcept>

#include "command_fixture.h"
#include "commands/GetInfo.h"

using command_test::CommandFixture;

namespace {

QString thrown_text(CommandFixture& f, const QString& name) {
    try {
        f.handler(name);
    } catch (const std::runtime_error& e) {
        return e.what();
    }
    return "nothing thrown";
}

}  // namespace

TEST(CommandFactory, UnknownAndMiscasedNamesThrowTheirText) {
    CommandFixture f;
    EXPECT_EQ(thrown_text(f, "GET_INFO"), "GET_INFO does not exist");
    EXPECT_EQ(thrown_text(f, "get_inf"), "get_inf does not exist");
    EXPECT_EQ(thrown_text(f, ""), " does not exist");
}

TEST(CommandFactory, KnowsAllTwentyFourNames) {
    CommandFixture f;
    const QStringList names = {"custom_request",
                               "exit",
                               "get_info",
                               "get_metadata",
                               "device",
                               "get_ids",
                               "send_dl_msg",
                               "status_dl_msg",
                               "get_dl_msg",
                               "dl_queue",
                               "get_roll",
                               "get_roll_extract",
                               "get_eav_value",
                               "get_eav_event",
                               "get_eav_extract",
                               "get_eav_extract_event",
                               "request_roll",
                               "request_eav_value",
                               "request_eav_event",
                               "read_setting",
                               "write_setting",
                               "read_calib",
                               "write_calib",
                               "reparse_modem"};
    EXPECT_EQ(int(command_table().size()), names.size());
    for (const QString& name : names) {
        EXPECT_NE(f.handler(name), nullptr) << name.toStdString();
    }
}

TEST(CommandFactory, EveryCommandGetsAFreshHandler) {
    CommandFixture f;
    const auto first = f.handler("get_info");
    const auto second = f.handler("get_info");
    EXPECT_NE(first.get(), second.get());
    EXPECT_NE(dynamic_cast<GetInfo*>(first.get()), nullptr);
}

TEST(GetInfo, AnswersUnderProtocolAndInstanceNames) {
    CommandFixture f;
    f.context->pm_config.instance_names = QStringList{"a", "b"};
    f.context->engine_config.instances = 3;
    f.context->engine_config.position = 2;
    f.context->engine_config.settings.ul_dl_ttl = 86400;
    f.context->engine_config.settings.controller_period = 250;
    f.context->engine_config.settings.dl_queues = true;

    const QJsonObject reply = f.run("get_info", QJsonObject{{"ignored", 1}});
    ASSERT_EQ(reply.keys(), QStringList{"proto7:a,b"});
    const QJsonObject info = reply.value("proto7:a,b").toObject();
    const QJsonObject expected{{"version", "1.1.43"},        {"build timestamp", 1758894769},
                               {"up timestamp", 1700000000}, {"protocol", "proto7"},
                               {"hw type", "marl\\d"},       {"db plugin", "db_driver_dummy"},
                               {"instances count", 3},       {"instance number", 2},
                               {"instance name", "a,b"},     {"check is mine", true},
                               {"ul dl ttl", 86400},         {"client send", false},
                               {"controler period", 250},    {"dl queues", true}};
    EXPECT_EQ(info, expected);
}

TEST(GetInfo, EmptyInstanceNamesLeaveTheProtocolAndColon) {
    CommandFixture f;
    f.context->pm_config.instance_names = QStringList{};
    const QJsonObject reply = f.run("get_info", QJsonDocument());
    ASSERT_EQ(reply.keys(), QStringList{"proto7:"});
    EXPECT_EQ(reply.value("proto7:").toObject().value("instance name"), QJsonValue(""));
}

TEST(ExitNormal, AnswersEmptyAndEndsTheLoopAfterwards) {
    int argc = 1;
    char name[] = "commands_test";
    char* argv[] = {name, nullptr};
    QCoreApplication app(argc, argv);
    CommandFixture f;

    EXPECT_EQ(f.run("exit", QJsonObject()), QJsonObject());
    bool timed_out = false;
    QTimer::singleShot(5000, [&] {
        timed_out = true;
        app.exit(1);
    });
    EXPECT_EQ(app.exec(), 0);
    EXPECT_FALSE(timed_out);
}
