// Service information commands and the dispatch rules, through the broker with the real
// service process: get_info, exit, unknown names, unanswered and malformed requests,
// get_metadata, device, get_ids, custom_request.
#include <QDateTime>
#include <QSet>

#include "tests/e2e/e2e_fixture.h"

namespace {

using e2e::ids;
using e2e::key_of;

const QString null_uuid = "{00000000-0000-0000-0000-000000000000}";

class ServiceCommands : public e2e::database_test {
protected:
    void configure(e2e::service_process& service) override {
        m_started_at = QDateTime::currentSecsSinceEpoch();
        service.set("GENERAL_SETTINGS", "CONTROLER_PERIOD", "2500");
        service.set("GENERAL_SETTINGS", "UL_DL_TTL", "2");
        use_database(service,
                     QJsonObject{{key_of(modem(0)), device("X", {"c1"})},
                                 {key_of(modem(1)), device("Y")},
                                 {key_of(modem(2)), device("X")},
                                 {key_of(modem(3)), QJsonObject{{"protocol", "proto9"}, {"hw_type", "X"}}}});
        // The driver's configuration and the metadata files in a directory of this test.
        ASSERT_TRUE(QFile::copy(QUILLON_BIN_DIR "/plug_mbus.json", m_config.filePath("plug_mbus.json")));
        write_file("metadata_app1_proto7_marl2.json",
                   QJsonObject{{"X", QJsonObject{{"unit", "m3"}, {"icon", "water"}}},
                               {"*", QJsonObject{{"default", true}}}});
        write_file("metadata_2_proto7_marl2.json", QJsonObject{{"k", QJsonObject{{"y", 2}}}, {"other", 3}});
        write_file("metadata_broken_proto7_marl2.json", "{not json");
        service.set("PLUGIN_MANAGER_SETTINGS", "PLUGIN_CONFIG_PATH", m_config.path());
    }

    void write_file(const QString& name, const QJsonObject& content) {
        write_file(name, QJsonDocument(content).toJson());
    }

    void write_file(const QString& name, const QByteArray& content) {
        QFile file(m_config.filePath(name));
        ASSERT_TRUE(file.open(QIODevice::WriteOnly));
        file.write(content);
    }

    // Modem ids of a get_ids answer, as a set (the store's order is not part of the reply).
    static QSet<int> id_set(const QJsonValue& list) {
        QSet<int> set;
        for (const QJsonValue& id : list.toArray()) {
            set.insert(id.toInt());
        }
        return set;
    }

    QTemporaryDir m_config;
    qint64 m_started_at = 0;
};

TEST_P(ServiceCommands, GetInfoDescribesTheInstanceUnderProtocolAndInstanceName) {
    const QJsonObject request = e2e::command("get_info", QJsonObject{{"ignored", 1}}, m_reply_key);
    const QJsonObject response = exchange(request);
    EXPECT_EQ(response.value("msg_type").toString(), "response");
    EXPECT_EQ(response.value("cmd_id").toString(), request.value("cmd_id").toString());
    EXPECT_FALSE(response.contains("sender"));

    // Whole numbers go out as JSON integers.
    const QByteArray raw = m_replies->messages().back().payload;
    EXPECT_TRUE(raw.contains("\"build timestamp\":1758894769,")) << raw.toStdString();
    EXPECT_TRUE(raw.contains("\"controler period\":2500,")) << raw.toStdString();
    const QJsonObject reply = response.value("data").toObject();
    ASSERT_EQ(reply.keys(), QStringList{"proto7:marl2"});
    const QJsonObject info = reply.value("proto7:marl2").toObject();
    QStringList expected_keys{"version",          "build timestamp", "up timestamp",    "protocol",
                              "hw type",          "db plugin",       "instances count", "instance number",
                              "instance name",    "check is mine",   "ul dl ttl",       "client send",
                              "controler period", "dl queues"};
    expected_keys.sort();
    EXPECT_EQ(info.keys(), expected_keys);
    EXPECT_EQ(info.value("version").toString(), "1.1.43");
    EXPECT_TRUE(info.value("build timestamp").isDouble());
    EXPECT_EQ(info.value("build timestamp").toVariant().toLongLong(), 1758894769);
    const qint64 up = info.value("up timestamp").toVariant().toLongLong();
    EXPECT_GE(up, m_started_at);
    EXPECT_LE(up, QDateTime::currentSecsSinceEpoch());
    EXPECT_EQ(info.value("protocol").toString(), "proto7");
    EXPECT_EQ(info.value("hw type").toString(), ".*");
    EXPECT_EQ(info.value("db plugin").toString(), GetParam());
    EXPECT_EQ(info.value("instances count").toInt(), 1);
    EXPECT_EQ(info.value("instance number").toInt(), 0);
    EXPECT_EQ(info.value("instance name").toString(), "marl2");
    EXPECT_EQ(info.value("check is mine"), QJsonValue(true));
    EXPECT_EQ(info.value("ul dl ttl").toInt(), 2 * 86400);
    EXPECT_EQ(info.value("client send"), QJsonValue(true));
    EXPECT_EQ(info.value("controler period").toInt(), 2500);
    EXPECT_EQ(info.value("dl queues"), QJsonValue(false));
}

TEST_P(ServiceCommands, ExitIsAnsweredWithAnEmptyObjectAndTheProcessEndsNormally) {
    const QJsonObject response = exchange(e2e::command("exit", {}, m_reply_key));
    ASSERT_TRUE(response.contains("data"));
    EXPECT_EQ(response.value("data"), QJsonValue(QJsonObject()));
    ASSERT_TRUE(m_service.wait_for_exit());
    EXPECT_EQ(m_service.exit_code(), 0);
}

TEST_P(ServiceCommands, UnknownCommandNameIsRejectedWithoutResponse) {
    EXPECT_TRUE(unanswered(e2e::command("GET_INFO", {}, m_reply_key)));
    const QString log = m_service.log();
    EXPECT_TRUE(log.contains("error while parse income message :")) << log.toStdString();
    EXPECT_TRUE(log.contains("GET_INFO does not exist")) << log.toStdString();
    EXPECT_TRUE(m_service.running());
}

TEST_P(ServiceCommands, RequestWithoutSenderIsExecutedButNotAnswered) {
    // A response to an empty sender would be published with an empty routing key.
    e2e::probe empty_key({""});
    ASSERT_TRUE(empty_key.wait_ready());
    const QJsonObject write = e2e::command(
        "write_setting",
        QJsonObject{{"settings", QJsonObject{{key_of(modem(0)), QJsonObject{{"mode", "eco"}}}}}}, "");
    EXPECT_TRUE(unanswered(write));

    const QJsonObject read = call("read_setting", QJsonObject{{"modem_id", ids({modem(0)})}});
    EXPECT_EQ(read, (QJsonObject{{key_of(modem(0)), QJsonObject{{"mode", "eco"}}}}));
    for (const e2e::received& message : empty_key.messages()) {
        EXPECT_NE(message.json().value("cmd_id").toString(), write.value("cmd_id").toString());
    }
}

TEST_P(ServiceCommands, CommandIdThatIsNoUuidIsAnsweredWithTheNullUuid) {
    for (const QJsonValue& id :
         {QJsonValue("not-a-uuid"), QJsonValue(42), QJsonValue(QJsonValue::Undefined)}) {
        QJsonObject request = e2e::command("get_info", {}, m_reply_key);
        if (id.isUndefined()) {
            request.remove("cmd_id");
        } else {
            request["cmd_id"] = id;
        }
        m_replies->clear();
        m_sender->publish(m_service.command_key(), request);
        ASSERT_TRUE(m_replies->wait_for(1)) << m_service.log().right(2000).toStdString();
        const QJsonObject response = m_replies->messages().front().json();
        EXPECT_EQ(response.value("cmd_id").toString(), null_uuid);
        EXPECT_TRUE(response.value("data").toObject().contains("proto7:marl2"));
    }
}

TEST_P(ServiceCommands, DeliveriesThatAreNoCommandsGetNoResponse) {
    for (const QByteArray& body :
         {QByteArray("not json"), QByteArray("[1,2]"), QByteArray(), QByteArray("{}")}) {
        m_sender->publish_raw(m_service.command_key(), body);
    }
    // A response to no pending command of the service, and a name that is no text.
    QJsonObject response = e2e::command("response", QJsonObject{{"x", 1}}, m_reply_key);
    EXPECT_TRUE(unanswered(response));
    QJsonObject numeric = e2e::command("get_info", {}, m_reply_key);
    numeric["msg_type"] = 5;
    EXPECT_TRUE(unanswered(numeric));
    EXPECT_GE(m_service.log().count("error while parse income message :"), 5)
        << m_service.log().toStdString();
    EXPECT_TRUE(m_service.running());
}

// A burst of commands, some of them failing, is served one at a time in arrival order:
// every good one answered once, the failing ones not at all.
TEST_P(ServiceCommands, BurstOfCommandsIsAnsweredInArrivalOrder) {
    m_replies->clear();
    QStringList expected;
    for (int i = 0; i < 30; ++i) {
        const bool bad = i % 7 == 3;
        const QJsonObject request = e2e::command(bad ? "no_such_command" : (i % 2 ? "get_info" : "get_roll"),
                                                 QJsonObject{{"modem_id", ids({modem(0)})}}, m_reply_key);
        if (!bad) {
            expected << request.value("cmd_id").toString();
        }
        m_sender->publish(m_service.command_key(), request);
    }
    ASSERT_TRUE(m_replies->wait_for(size_t(expected.size()))) << m_replies->messages().size();
    QStringList answered;
    for (const e2e::received& message : m_replies->messages()) {
        answered << message.json().value("cmd_id").toString();
    }
    EXPECT_EQ(answered, expected);
    EXPECT_EQ(m_service.log().count("no_such_command does not exist"), 4);
}

// Every command but exit, with a body that is no object: each one reads it as an empty
// body and answers; those with a mandatory key answer {"status": "fail"}.
TEST_P(ServiceCommands, BodyThatIsNoObjectReadsAsAnEmptyBody) {
    const QJsonObject fail{{"status", "fail"}};
    const QMap<QString, QJsonObject> expected{{"custom_request", {}},
                                              {"get_metadata", {}},
                                              {"device", {}},
                                              {"get_ids", {}},
                                              {"send_dl_msg", fail},
                                              {"status_dl_msg", fail},
                                              {"get_dl_msg", {}},
                                              {"dl_queue", {}},
                                              {"get_roll", {}},
                                              {"get_roll_extract", {}},
                                              {"get_eav_value", {}},
                                              {"get_eav_event", {}},
                                              {"get_eav_extract", {}},
                                              {"get_eav_extract_event", {}},
                                              {"request_roll", {}},
                                              {"request_eav_value", {}},
                                              {"request_eav_event", {}},
                                              {"read_setting", fail},
                                              {"write_setting", fail},
                                              {"read_calib", fail},
                                              {"write_calib", fail},
                                              {"reparse_modem", {}}};
    for (const QJsonValue& body : {QJsonValue(QJsonArray{1, 2}), QJsonValue("text"), QJsonValue(7)}) {
        for (auto it = expected.begin(); it != expected.end(); ++it) {
            QJsonObject request = e2e::command(it.key(), {}, m_reply_key);
            request["data"] = body;
            const QJsonObject response = exchange(request);
            ASSERT_TRUE(response.contains("data")) << it.key().toStdString();
            EXPECT_EQ(response.value("data").toObject(), it.value())
                << it.key().toStdString() << " with "
                << QJsonDocument(QJsonArray{body}).toJson().toStdString();
        }
    }
    QJsonObject info = e2e::command("get_info", {}, m_reply_key);
    info["data"] = QJsonArray{1, 2};
    EXPECT_TRUE(exchange(info).value("data").toObject().contains("proto7:marl2"));
    EXPECT_TRUE(m_service.log().contains("get_roll: the command body is not a JSON object"));
    EXPECT_TRUE(m_service.running());
}

// Modem ids of the wrong JSON type are dropped; the service keeps answering.
TEST_P(ServiceCommands, ModemIdsOfTheWrongTypeAreDropped) {
    const QJsonArray junk{"123", 1.5, 1e12, QJsonValue(), QJsonObject{{"a", 1}}, QJsonArray{modem(0)}, true};
    const QJsonValue not_an_array = key_of(modem(0));
    const QJsonObject own_and_junk{{"modem_id", QJsonArray{junk[0], modem(0), junk[1], junk[2]}}};

    for (const char* type :
         {"get_roll", "get_roll_extract", "get_eav_value", "get_eav_event", "get_eav_extract",
          "get_eav_extract_event", "get_dl_msg", "device", "request_roll", "request_eav_value",
          "request_eav_event", "reparse_modem", "get_metadata", "custom_request"}) {
        EXPECT_EQ(call(type, QJsonObject{{"modem_id", junk}}), QJsonObject()) << type;
        EXPECT_EQ(call(type, QJsonObject{{"modem_id", not_an_array}}), QJsonObject()) << type;
    }
    // The valid id among the junk is still served.
    EXPECT_EQ(call("request_roll", own_and_junk), (QJsonObject{{key_of(modem(0)), "ok"}}));
    EXPECT_EQ(call("device", own_and_junk),
              (QJsonObject{{key_of(modem(0)), QJsonObject{{"supported", true}}}}));
    EXPECT_EQ(call("read_setting", QJsonObject{{"modem_id", junk}}), QJsonObject());
    EXPECT_EQ(call("read_calib", QJsonObject{{"modem_id", not_an_array}}), QJsonObject());
    EXPECT_EQ(call("send_dl_msg", QJsonObject{{"modem_id", junk}, {"data", QJsonObject()}}), QJsonObject());
    EXPECT_EQ(call("send_dl_msg", QJsonObject{{"modem_id", not_an_array}, {"data", QJsonObject()}}),
              QJsonObject());

    // Modem ids as object keys: texts that are no 32-bit decimal integer.
    const QJsonObject keyed{{"abc", QJsonObject{{"k", 1}}},
                            {"1e3", QJsonObject{{"k", 1}}},
                            {"99999999999", QJsonObject{{"k", 1}}},
                            {"", QJsonObject{{"k", 1}}}};
    EXPECT_EQ(call("write_setting", QJsonObject{{"settings", keyed}}), QJsonObject());
    EXPECT_EQ(call("write_setting", QJsonObject{{"settings", junk}}), QJsonObject());
    EXPECT_EQ(call("write_calib", QJsonObject{{"calibs", keyed}}), QJsonObject());
    EXPECT_EQ(call("write_calib", QJsonObject{{"calibs", "text"}}), QJsonObject());
    QJsonObject queues = keyed;
    queues["mode"] = 5;  // not a text: the normal mode
    EXPECT_EQ(call("dl_queue", queues), QJsonObject());
    EXPECT_EQ(call("dl_queue", QJsonObject{{"all", QJsonObject{{"action", "get"}, {"modem_id", junk}}}}),
              (QJsonObject{{"all", QJsonObject{{"action", "get"}, {"modem_id", QJsonArray()}}}}));
    // Identifiers of stored downlinks that are not texts read as the empty text.
    const QJsonObject status = call("status_dl_msg", QJsonObject{{"db_id", QJsonArray{1}}});
    EXPECT_EQ(status.keys(), QStringList{""});

    EXPECT_TRUE(call("get_info", {}).contains("proto7:marl2"));
    EXPECT_TRUE(m_service.running());
    EXPECT_TRUE(m_service.log().contains("is not a 32-bit integer, dropped"));
}

TEST_P(ServiceCommands, GetMetadataPerModemFromTheApplicationFileOrTheDriver) {
    // Modem 1 has hardware type Y: the file's "*" entry; modem 3 is another protocol's.
    const QJsonObject from_file = call(
        "get_metadata", QJsonObject{{"modem_id", ids({modem(0), modem(1), modem(3)})}, {"app_id", "app1"}});
    EXPECT_EQ(from_file, (QJsonObject{{key_of(modem(0)), QJsonObject{{"unit", "m3"}, {"icon", "water"}}},
                                      {key_of(modem(1)), QJsonObject{{"default", true}}}}));

    const QJsonObject from_driver = call("get_metadata", QJsonObject{{"modem_id", ids({modem(0)})}});
    ASSERT_EQ(from_driver.keys(), QStringList{key_of(modem(0))});
    const QJsonObject description = from_driver.value(key_of(modem(0))).toObject();
    const QJsonObject volume = description.value("par3").toObject();
    EXPECT_EQ(volume.value("name").toString(), "volume");
    EXPECT_EQ(volume.value("unit").toString(), "m3");
    EXPECT_EQ(volume.value("write"), QJsonValue(false));
    EXPECT_EQ(volume.value("calib"), QJsonValue(true));  // every value can be calibrated
    EXPECT_EQ(volume.value("mul").toDouble(), 1.0);
    EXPECT_EQ(volume.value("div").toDouble(), 1.0);
    const QJsonObject power_low = description.value("event4").toObject();
    EXPECT_EQ(power_low.value("name").toString(), "power_low");
    EXPECT_EQ(power_low.value("code").toInt(), 4);
    EXPECT_EQ(description.value("ctrl1").toObject().value("name").toString(), "raw_downlink");
}

TEST_P(ServiceCommands, GetMetadataPerHardwareType) {
    EXPECT_EQ(call("get_metadata", QJsonObject{{"hw_type", "X"}, {"protocol", "proto7"}, {"app_id", "app1"}}),
              (QJsonObject{{"unit", "m3"}, {"icon", "water"}}));
    // A numeric application id names the file by its decimal text; a key the file lacks,
    // without a "*" entry, gives the whole file.
    EXPECT_EQ(call("get_metadata", QJsonObject{{"hw_type", "Q"}, {"protocol", "*"}, {"app_id", 2}}),
              (QJsonObject{{"k", QJsonObject{{"y", 2}}}, {"other", 3}}));
    EXPECT_EQ(call("get_metadata", QJsonObject{{"hw_type", "k"}, {"protocol", "proto7"}, {"app_id", "2"}}),
              (QJsonObject{{"y", 2}}));
    // File names are compared case-sensitively, and only names listed in the directory
    // are opened.
    EXPECT_EQ(call("get_metadata", QJsonObject{{"hw_type", "X"}, {"protocol", "proto7"}, {"app_id", "APP1"}}),
              QJsonObject());
    EXPECT_EQ(
        call("get_metadata", QJsonObject{{"hw_type", "X"}, {"protocol", "proto7"}, {"app_id", "../x/app1"}}),
        QJsonObject());
    // No such file, a malformed file, a protocol of another driver, a missing key.
    EXPECT_EQ(call("get_metadata", QJsonObject{{"hw_type", "X"}, {"protocol", "proto7"}, {"app_id", "none"}}),
              QJsonObject());
    EXPECT_EQ(
        call("get_metadata", QJsonObject{{"hw_type", "X"}, {"protocol", "proto7"}, {"app_id", "broken"}}),
        QJsonObject());
    EXPECT_EQ(call("get_metadata", QJsonObject{{"hw_type", "X"}, {"protocol", "proto8"}, {"app_id", "app1"}}),
              QJsonObject());
    EXPECT_EQ(call("get_metadata", QJsonObject{{"hw_type", "X"}, {"app_id", "app1"}}), QJsonObject());
    // Without an application id: the driver's description of the hardware type.
    const QJsonObject driver = call("get_metadata", QJsonObject{{"hw_type", "X"}, {"protocol", "proto7"}});
    EXPECT_EQ(driver.value("par1").toObject().value("name").toString(), "energy");
    EXPECT_EQ(driver.value("par1").toObject().value("unit").toString(), "Wh");
    EXPECT_TRUE(driver.contains("event8"));
}

TEST_P(ServiceCommands, DeviceTellsSupportAndTheStoredUplink) {
    publish_uplink(modem(0), e2e::volume_payload(12345), 1);
    ASSERT_TRUE(accepted(modem(0), 1));
    const QJsonObject reply =
        call("device", QJsonObject{{"modem_id", ids({modem(0), modem(1), modem(3)})}, {"limit", 50}});
    ASSERT_EQ(reply.keys().size(), 2) << QJsonDocument(reply).toJson().toStdString();
    EXPECT_EQ(reply.value(key_of(modem(1))), QJsonValue(QJsonObject{{"supported", true}}));
    const QJsonObject own = reply.value(key_of(modem(0))).toObject();
    EXPECT_EQ(own.value("supported"), QJsonValue(true));
    const QJsonObject last = own.value("last_roll").toObject();
    EXPECT_EQ(last.value("payload").toString(), "78041339300000");
    EXPECT_EQ(last.value("modem_id").toInt(), modem(0));
    EXPECT_EQ(last.value("parse_status").toString(), "parsed");
    EXPECT_EQ(last.value("time_detected").toVariant().toLongLong(), e2e::detected_at);
}

TEST_P(ServiceCommands, GetIdsListsTheRegistryPerHardwareTypeAndProtocol) {
    const QJsonObject x = call("get_ids", QJsonObject{{"hw_type", "X"}, {"protocol", "proto7"}});
    ASSERT_EQ(x.keys(), QStringList{"proto7:X"});
    EXPECT_EQ(id_set(x.value("proto7:X")), (QSet<int>{modem(0), modem(2)}));

    const QJsonObject all = call("get_ids", QJsonObject{{"hw_type", "*"}, {"protocol", "*"}});
    ASSERT_EQ(all.keys(), QStringList{"*:*"});
    EXPECT_EQ(id_set(all.value("*:*")), (QSet<int>{modem(0), modem(1), modem(2), modem(3)}));

    const QJsonObject any_protocol = call("get_ids", QJsonObject{{"hw_type", "Y"}, {"protocol", "*"}});
    EXPECT_EQ(id_set(any_protocol.value("*:Y")), (QSet<int>{modem(1)}));

    EXPECT_EQ(call("get_ids", QJsonObject{{"hw_type", "X"}}), QJsonObject());
    EXPECT_EQ(call("get_ids", QJsonObject{{"protocol", "proto7"}}), QJsonObject());
    EXPECT_EQ(call("get_ids", QJsonObject{{"hw_type", "X"}, {"protocol", "proto9"}}), QJsonObject());
}

TEST_P(ServiceCommands, CustomRequestGoesToTheDriverOnlyForItsInstanceOrOwnModems) {
    // The M-Bus driver answers every custom query with an empty object; the request still
    // travels to it and back without harm in each form.
    EXPECT_EQ(call("custom_request", QJsonObject{{"query", "q"}, {"modem_id", ids({modem(0)})}}),
              QJsonObject());
    EXPECT_EQ(call("custom_request", QJsonObject{{"query", "q"}, {"instance", "proto7_marl2"}}),
              QJsonObject());
    EXPECT_EQ(call("custom_request", QJsonObject{{"query", "q"}, {"instance", "proto7_other"}}),
              QJsonObject());
    EXPECT_EQ(call("custom_request", QJsonObject{{"query", "q"}, {"modem_id", ids({modem(3)})}}),
              QJsonObject());
    EXPECT_EQ(call("custom_request", QJsonObject{}), QJsonObject());
}

INSTANTIATE_TEST_SUITE_P(Databases, ServiceCommands, e2e::database_plugins(), e2e::database_label);

class ServiceCommandsTwoInstances : public e2e::service_test {
protected:
    void configure(e2e::service_process& service) override {
        service.set("PLUGIN_MANAGER_SETTINGS", "INSTANCE_NAME", "marl2,marl3");
        service.set("GENERAL_SETTINGS", "DL_QUEUES", "true");
    }
    std::pair<int, int> instance() const override { return {3, 2}; }
};

TEST_F(ServiceCommandsTwoInstances, GetInfoJoinsTheInstanceNamesAndTellsThePosition) {
    const QJsonObject reply = call("get_info", {});
    ASSERT_EQ(reply.keys(), QStringList{"proto7:marl2,marl3"});
    const QJsonObject info = reply.value("proto7:marl2,marl3").toObject();
    EXPECT_EQ(info.value("instance name").toString(), "marl2,marl3");
    EXPECT_EQ(info.value("dl queues"), QJsonValue(true));
    EXPECT_EQ(info.value("instances count").toInt(), 3);
    EXPECT_EQ(info.value("instance number").toInt(), 2);
    EXPECT_EQ(info.value("controler period").toInt(), 1000);
    EXPECT_EQ(info.value("ul dl ttl").toInt(), 365 * 86400);
}

}  // namespace
