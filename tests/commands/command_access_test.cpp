#include <gtest/gtest.h>

#include <QJsonArray>
#include <QJsonObject>

#include "commands/command_access.h"

namespace {

api_message command(const QString& name, const QJsonObject& body = {}, const QString& user = {}) {
    api_message message;
    message.msg_type = name;
    message.data = QJsonDocument(body);
    message.user_id = user;
    return message;
}

rabbit_api_config allowing(const QString& read, const QString& write, const QString& admin) {
    rabbit_api_config cfg;
    cfg.allow_read = read;
    cfg.allow_write = write;
    cfg.allow_admin = admin;
    return cfg;
}

}  // namespace

TEST(CommandClasses, EveryCommandFallsIntoItsClass) {
    const QStringList reads{"get_info",
                            "get_metadata",
                            "get_ids",
                            "device",
                            "custom_request",
                            "get_dl_msg",
                            "status_dl_msg",
                            "get_roll",
                            "get_roll_extract",
                            "get_eav_value",
                            "get_eav_event",
                            "get_eav_extract",
                            "get_eav_extract_event",
                            "read_setting",
                            "read_calib"};
    for (const QString& name : reads) {
        EXPECT_EQ(class_of_command(command(name)), command_class::read) << name.toStdString();
    }
    const QStringList writes{"send_dl_msg",       "write_setting",     "write_calib",  "request_roll",
                             "request_eav_value", "request_eav_event", "reparse_modem"};
    for (const QString& name : writes) {
        EXPECT_EQ(class_of_command(command(name)), command_class::write) << name.toStdString();
    }
    EXPECT_EQ(class_of_command(command("exit")), command_class::admin);
    // A name without a handler is kept from readers.
    EXPECT_EQ(class_of_command(command("no_such_command")), command_class::write);
    EXPECT_EQ(class_of_command(command("GET_INFO")), command_class::write);
}

TEST(CommandClasses, QueueRequestsReadUnlessOneAddresseeChangesQueues) {
    EXPECT_EQ(class_of_command(command("dl_queue", {{"mode", "modem_list"}, {"admin", true}})),
              command_class::read);
    EXPECT_EQ(class_of_command(command("dl_queue", {{"7", QJsonObject{{"action", "get"}}}})),
              command_class::read);
    const QJsonObject mixed{{"7", QJsonObject{{"action", "get"}}}, {"8", QJsonObject{{"action", "unlock"}}}};
    EXPECT_EQ(class_of_command(command("dl_queue", mixed)), command_class::write);
    const QJsonObject all{{"all", QJsonObject{{"action", "delete"}, {"modem_id", QJsonArray{1, 2}}}}};
    EXPECT_EQ(class_of_command(command("dl_queue", all)), command_class::write);
    for (const char* action : {"delete", "repeat", "update", "create", "lock", "unlock"}) {
        EXPECT_EQ(class_of_command(command("dl_queue", {{"5", QJsonObject{{"action", action}}}})),
                  command_class::write)
            << action;
    }
    // An unknown action changes nothing.
    EXPECT_EQ(class_of_command(command("dl_queue", {{"5", QJsonObject{{"action", "Create"}}}})),
              command_class::read);
}

TEST(CommandAccessLists, ListsAreTrimmedAndStarAllowsEveryoneEvenWithoutAUser) {
    const command_access open(allowing("*", "*", "*"));
    EXPECT_FALSE(open.restricted());
    EXPECT_TRUE(open.permits(command("exit")));

    const command_access lists(allowing(" dash , op ", "op", ""));
    EXPECT_TRUE(lists.restricted());
    EXPECT_TRUE(lists.permits(command("get_roll", {}, "dash")));
    EXPECT_TRUE(lists.permits(command("get_roll", {}, "op")));
    EXPECT_FALSE(lists.permits(command("get_roll", {}, "")));
    EXPECT_FALSE(lists.permits(command("get_roll", {}, "Dash")));  // user names are exact
    EXPECT_FALSE(lists.permits(command("send_dl_msg", {}, "dash")));
    EXPECT_TRUE(lists.permits(command("send_dl_msg", {}, "op")));
    // An empty list allows nobody: exit is off for everyone.
    EXPECT_FALSE(lists.permits(command("exit", {}, "op")));

    const command_access star_in_list(allowing("a,*", "b", "b"));
    EXPECT_TRUE(star_in_list.permits(command("get_info", {}, "")));
    EXPECT_FALSE(star_in_list.permits(command("write_calib", {}, "a")));
}
