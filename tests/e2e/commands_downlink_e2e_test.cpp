// Downlink commands through the broker with the real service process: send_dl_msg (and
// the "dl" command it hands to the network server), status_dl_msg, get_dl_msg, dl_queue.
#include "tests/e2e/e2e_fixture.h"

namespace {

using e2e::ids;
using e2e::key_of;

class DownlinkCommands : public e2e::database_test {
protected:
    void configure(e2e::service_process& service) override {
        use_database(service,
                     QJsonObject{{key_of(modem(0)), device("X")},
                                 {key_of(modem(1)), device("X")},
                                 {key_of(modem(2)), QJsonObject{{"protocol", "proto9"}, {"hw_type", "X"}}}});
    }

    // Sends one downlink to modem 0 and returns the stored message's id.
    QString send_one(const QJsonObject& fields) {
        QJsonObject body = fields;
        body["modem_id"] = ids({modem(0)});
        if (!body.contains("data")) {
            body["data"] = QJsonObject{{"n", 1}};
        }
        const QJsonObject reply = call("send_dl_msg", body);
        return reply.value(key_of(modem(0))).toObject().value("bd_id").toString();
    }

    QJsonObject stored(const QString& db_id) {
        return call("status_dl_msg", QJsonObject{{"db_id", QJsonArray{db_id}}}).value(db_id).toObject();
    }

    QJsonObject queues(int modem_id, const QJsonObject& request, const QString& mode = QString()) {
        QJsonObject body{{key_of(modem_id), request}};
        if (!mode.isEmpty()) {
            body["mode"] = mode;
        }
        return call("dl_queue", body).value(key_of(modem_id)).toObject();
    }

    static QJsonObject error(const QString& action, const QStringList& texts) {
        return QJsonObject{
            {"action", action}, {"status", "error"}, {"result", QJsonArray::fromStringList(texts)}};
    }

    static QJsonObject ok(const QString& action) { return QJsonObject{{"action", action}, {"status", "ok"}}; }
};

TEST_P(DownlinkCommands, SendDownlinkStoresItAndHandsTheDlCommandToTheNetworkServer) {
    e2e::probe netcore({"cmd.in.netcore"});
    ASSERT_TRUE(netcore.wait_ready());
    const QJsonObject reply =
        call("send_dl_msg", QJsonObject{{"modem_id", ids({modem(2), modem(0)})},
                                        {"data", QJsonObject{{"raw_payload", "0a0b0c"}}},
                                        {"payload", "0a0b0c"},
                                        {"timeout", 120},
                                        {"dl_phy", 3},
                                        {"frequency", 868},
                                        {"station_id", 7},
                                        {"f_ack", 0},
                                        {"f_system", 1},
                                        {"api_key", "client-key"},
                                        {"user_id", "u1"}});
    // Modem 2 belongs to another protocol's driver: no key.
    ASSERT_EQ(reply.keys(), QStringList{key_of(modem(0))});
    const QJsonObject sent = reply.value(key_of(modem(0))).toObject();
    EXPECT_EQ(sent.value("ok"), QJsonValue(true));
    const QString db_id = sent.value("bd_id").toString();
    ASSERT_FALSE(db_id.isEmpty());

    ASSERT_TRUE(wait_own_commands(netcore, 1)) << m_service.log().right(3000).toStdString();
    const std::vector<QJsonObject> commands = own_commands(netcore);
    ASSERT_EQ(commands.size(), 1u);
    const QJsonObject dl = commands.front();
    EXPECT_EQ(dl.value("msg_type").toString(), "dl");
    EXPECT_EQ(dl.value("sharded").toInt(), modem(0));
    EXPECT_TRUE(dl.value("cmd_id").toString().startsWith("{"));
    EXPECT_EQ(dl.value("data").toObject(), (QJsonObject{{"payload", "0A0B0C"},
                                                        {"api_key", api_key},
                                                        {"status_id", db_id},
                                                        {"modem_id", modem(0)},
                                                        {"f_ack", 0},
                                                        {"f_system", 1},
                                                        {"frequency", 868},
                                                        {"dl_phy", 3},
                                                        {"station_id", 7},
                                                        {"protocol", "proto7"}}));

    const QJsonObject message = stored(db_id);
    EXPECT_EQ(message.value("db_id").toString(), db_id);
    EXPECT_EQ(message.value("dl_status").toString(), "PENDING");
    EXPECT_EQ(message.value("payload").toString(), "0a0b0c");
    EXPECT_EQ(message.value("modem_id").toInt(), modem(0));
    EXPECT_EQ(message.value("timeout").toInt(), 120);
    EXPECT_EQ(message.value("api_key").toString(), "client-key");
    EXPECT_EQ(message.value("user_id").toString(), "u1");
    EXPECT_EQ(message.value("data").toObject(), (QJsonObject{{"raw_payload", "0a0b0c"}}));
}

TEST_P(DownlinkCommands, SendDownlinkTimeoutIsCappedAtThirtyDaysAndZeroMeansTheCap) {
    EXPECT_EQ(stored(send_one({{"timeout", 0}})).value("timeout").toInt(), 2592000);
    EXPECT_EQ(stored(send_one({{"timeout", 2592000}})).value("timeout").toInt(), 2592000);
    EXPECT_EQ(stored(send_one({{"timeout", 2592001}})).value("timeout").toInt(), 2592000);
    EXPECT_EQ(stored(send_one({{"timeout", 1}})).value("timeout").toInt(), 1);
}

TEST_P(DownlinkCommands, SendDownlinkWithoutModemsOrDataFails) {
    const QJsonObject fail{{"status", "fail"}};
    EXPECT_EQ(call("send_dl_msg", QJsonObject{{"modem_id", ids({modem(0)})}}), fail);
    EXPECT_EQ(call("send_dl_msg", QJsonObject{{"data", QJsonObject()}}), fail);
    EXPECT_EQ(call("send_dl_msg", QJsonObject{{"modem_id", QJsonArray()}, {"data", QJsonObject()}}),
              QJsonObject());
    EXPECT_EQ(call("status_dl_msg", QJsonObject{}), fail);
}

TEST_P(DownlinkCommands, StatusOfAnUnknownIdHoldsTheStoreErrorText) {
    const QString db_id = send_one({{"payload", "01"}});
    ASSERT_FALSE(db_id.isEmpty());
    const QJsonObject reply = call("status_dl_msg", QJsonObject{{"db_id", QJsonArray{db_id, "nope"}}});
    ASSERT_EQ(reply.size(), 2);
    EXPECT_EQ(reply.value(db_id).toObject().value("payload").toString(), "01");
    EXPECT_EQ(reply.value("nope"), QJsonValue("dl message nope not found"));
}

TEST_P(DownlinkCommands, GetDownlinksListsThemAndNotAckedLeavesOutTheFinished) {
    const QString first = send_one({{"payload", "01"}});
    const QString second = send_one({{"payload", "02"}});
    const QString third = send_one({{"payload", "03"}});
    ASSERT_FALSE(first.isEmpty() || second.isEmpty() || third.isEmpty());

    // The network server reports the second one as delivered.
    m_sender->publish(QString("nc.0.ul.marl2.proto7.%1").arg(modem(0)),
                      QJsonObject{{"msg_type", "dl_success"}, {"modem_id", modem(0)}, {"status_id", second}});
    ASSERT_TRUE(e2e::wait_until([&] { return stored(second).value("dl_status").toString() == "EXECUTED"; }))
        << m_service.log().right(3000).toStdString();

    const auto db_ids = [](const QJsonObject& reply, int modem_id) {
        QStringList list;
        for (const QJsonValue& message : reply.value(key_of(modem_id)).toArray()) {
            list << message.toObject().value("db_id").toString();
        }
        return list;
    };
    const QJsonObject all =
        call("get_dl_msg", QJsonObject{{"modem_id", ids({modem(0), modem(1), modem(2)})}});
    EXPECT_EQ(all.keys(), QStringList{key_of(modem(0))});
    EXPECT_EQ(db_ids(all, modem(0)), (QStringList{first, second, third}));

    // ... and the third as failed.
    m_sender->publish(QString("nc.0.ul.marl2.proto7.%1").arg(modem(0)),
                      QJsonObject{{"msg_type", "dl_fault"}, {"modem_id", modem(0)}, {"status_id", third}});
    ASSERT_TRUE(e2e::wait_until([&] { return stored(third).value("dl_status").toString() == "TIMEOUT"; }))
        << m_service.log().right(3000).toStdString();

    const QJsonObject not_acked =
        call("get_dl_msg", QJsonObject{{"modem_id", ids({modem(0)})}, {"not_acked", true}});
    EXPECT_EQ(db_ids(not_acked, modem(0)), (QStringList{first}));
    const QJsonObject acked_too =
        call("get_dl_msg", QJsonObject{{"modem_id", ids({modem(0)})}, {"not_acked", false}});
    EXPECT_EQ(db_ids(acked_too, modem(0)).size(), 3);

    EXPECT_EQ(db_ids(call("get_dl_msg", QJsonObject{{"modem_id", ids({modem(0)})}, {"limit", 2}}), modem(0)),
              (QStringList{first, second}));
    // A time range that ends before the messages were stored.
    EXPECT_EQ(call("get_dl_msg", QJsonObject{{"modem_id", ids({modem(0)})}, {"to", 1000}}), QJsonObject());
    EXPECT_EQ(call("get_dl_msg", QJsonObject{{"modem_id", ids({modem(2)})}}), QJsonObject());
}

TEST_P(DownlinkCommands, QueueCreateGetAndCompactView) {
    const QJsonObject create{
        {"action", "create"},
        {"q1", QJsonObject{{"ttl", 3600},
                           {"timeout", 600.7},
                           {"repeat", 2},
                           {"lock", true},
                           {"e1", QJsonObject{{"data", QJsonObject{{"raw_payload", "0a"}}}, {"dl_phy", 4}}},
                           {"e2", QJsonObject{{"data", QJsonObject{{"x", 1}}}, {"type", "raw"}}},
                           {"not_an_entry", 5}}},
        {"q2", QJsonObject{{"e3", QJsonObject{{"data", QJsonObject()}}}}}};
    EXPECT_EQ(queues(modem(0), create), ok("create"));

    const QJsonObject got = queues(modem(0), QJsonObject{{"action", "get"}});
    EXPECT_EQ(got.value("action").toString(), "get");
    EXPECT_EQ(got.value("status").toString(), "ok");
    const QJsonObject set = got.value("result").toObject();
    EXPECT_EQ(set.value("status").toString(), "NONE");
    EXPECT_EQ(set.value("lock"), QJsonValue(false));
    const QJsonObject dl = set.value("dl").toObject();
    EXPECT_EQ(dl.keys(), (QStringList{"q1", "q2"}));
    const QJsonObject q1 = dl.value("q1").toObject();
    EXPECT_EQ(q1.keys(), (QStringList{"e1", "e2", "lock", "repeat", "start_from", "start_ts", "status",
                                      "timeout", "ttl"}));
    EXPECT_EQ(q1.value("ttl").toInt(), 3600);
    EXPECT_EQ(q1.value("timeout").toInt(), 600);
    EXPECT_EQ(q1.value("repeat").toInt(), 2);
    EXPECT_EQ(q1.value("lock"), QJsonValue(true));
    EXPECT_EQ(q1.value("status").toString(), "NONE");
    EXPECT_EQ(q1.value("e1").toObject(), (QJsonObject{{"data", QJsonObject{{"raw_payload", "0a"}}},
                                                      {"db_id", ""},
                                                      {"repeat", 0},
                                                      {"status", "NONE"},
                                                      {"type", "typical"},
                                                      {"dl_phy", 4},
                                                      {"station_id", 0},
                                                      {"frequency", 0},
                                                      {"f_ack", 0},
                                                      {"f_system", 0}}));
    EXPECT_EQ(q1.value("e2").toObject().value("type").toString(), "raw");
    EXPECT_TRUE(dl.value("q2").toObject().contains("e3"));

    // Mode names are compared without regard to case.
    EXPECT_EQ(queues(modem(0), QJsonObject{{"action", "get"}}, "QUEUE_Compact"),
              (QJsonObject{{"action", "get"}, {"status", "ok"}, {"q1", "NONE"}, {"q2", "NONE"}}));
    EXPECT_EQ(queues(modem(0), QJsonObject{{"action", "get"}}, "modem_compact"),
              (QJsonObject{{"action", "get"}, {"status", "NONE"}}));
    EXPECT_EQ(queues(modem(0), QJsonObject{{"action", "get"}}, "no such mode").value("result").toObject(),
              set);

    const QJsonObject list = call("dl_queue", QJsonObject{{key_of(modem(0)), QJsonObject{{"action", "get"}}},
                                                          {key_of(modem(1)), QJsonObject{{"action", "get"}}},
                                                          {"mode", "queue_list"}});
    EXPECT_EQ(list.value(key_of(modem(0))), QJsonValue(QJsonObject{{"action", "get"}}));
    const QJsonObject table = list.value("all").toObject();
    EXPECT_EQ(table.value("status").toString(), "ok");
    EXPECT_EQ(table.value("dl").toObject().value("q1").toObject().value("NONE"), QJsonValue(ids({modem(0)})));
}

TEST_P(DownlinkCommands, QueueEditingActionsAndTheirErrorTexts) {
    const QString m = key_of(modem(0));
    const QJsonObject entry{{"data", QJsonObject{{"raw_payload", "0a"}}}};
    ASSERT_EQ(queues(modem(0),
                     QJsonObject{{"action", "create"}, {"q1", QJsonObject{{"ttl", 3600}, {"e1", entry}}}}),
              ok("create"));

    // One queue exists already, the other is created all the same; an entry without "data".
    EXPECT_EQ(queues(modem(0),
                     QJsonObject{{"action", "create"},
                                 {"q1", QJsonObject{{"e9", entry}}},
                                 {"q2", QJsonObject{{"e2", entry}, {"bad", QJsonObject{{"type", "raw"}}}}}}),
              error("create", {m + ": 'q1' allready exist", m + ": 'bad' in 'q2' queue not exist data"}));
    QJsonObject dl =
        queues(modem(0), QJsonObject{{"action", "get"}}).value("result").toObject().value("dl").toObject();
    EXPECT_EQ(dl.keys(), (QStringList{"q1", "q2"}));
    EXPECT_FALSE(dl.value("q1").toObject().contains("e9"));
    EXPECT_TRUE(dl.value("q2").toObject().contains("e2"));

    // "update" takes "ttl" only as a boolean.
    EXPECT_EQ(
        queues(modem(0), QJsonObject{{"action", "update"}, {"q1", QJsonObject{{"ttl", 5}, {"timeout", 30}}}}),
        ok("update"));
    QJsonObject q1 = queues(modem(0), QJsonObject{{"action", "get"}})
                         .value("result")
                         .toObject()
                         .value("dl")
                         .toObject()
                         .value("q1")
                         .toObject();
    EXPECT_EQ(q1.value("ttl").toInt(), 3600);
    EXPECT_EQ(q1.value("timeout").toInt(), 30);
    EXPECT_EQ(
        queues(modem(0), QJsonObject{{"action", "update"},
                                     {"q1", QJsonObject{{"ttl", true}, {"e1", QJsonObject{{"repeat", 4}}}}}}),
        ok("update"));
    q1 = queues(modem(0), QJsonObject{{"action", "get"}})
             .value("result")
             .toObject()
             .value("dl")
             .toObject()
             .value("q1")
             .toObject();
    EXPECT_EQ(q1.value("ttl").toInt(), 1);
    EXPECT_EQ(q1.value("e1").toObject().value("repeat").toInt(), 4);
    EXPECT_EQ(q1.value("e1").toObject().value("data").toObject(), entry.value("data").toObject());

    EXPECT_EQ(queues(modem(0), QJsonObject{{"action", "update"},
                                           {"q1", QJsonObject()},
                                           {"q2", QJsonObject{{"e9", QJsonObject{{"repeat", 1}}}}},
                                           {"qx", QJsonObject{{"ttl", true}}}}),
              error("update", {m + ": 'q1' queue is empty", m + ": 'e9' in 'q2' queue not exist",
                               m + ": 'qx' queue is not exist"}));

    EXPECT_EQ(queues(modem(0), QJsonObject{{"action", "frob"}}), error("frob", {m + ": unknown action"}));
    EXPECT_EQ(queues(modem(0), QJsonObject{{"q1", QJsonObject()}}), error("", {m + ": unknown action"}));
}

TEST_P(DownlinkCommands, QueueDeleteRepeatAndLocks) {
    const QString m = key_of(modem(0));
    const QJsonObject entry{{"data", QJsonObject{{"raw_payload", "0a"}}}};
    ASSERT_EQ(queues(modem(0), QJsonObject{{"action", "create"},
                                           {"q1", QJsonObject{{"e1", entry}, {"e2", entry}}},
                                           {"q2", QJsonObject{{"e3", entry}}}}),
              ok("create"));
    const auto stored_set = [&] {
        return queues(modem(0), QJsonObject{{"action", "get"}}).value("result").toObject();
    };

    // "lock" alone locks the set and leaves the queues' own locks alone.
    EXPECT_EQ(queues(modem(0), QJsonObject{{"action", "lock"}}), ok("lock"));
    QJsonObject set = stored_set();
    EXPECT_EQ(set.value("lock"), QJsonValue(true));
    EXPECT_EQ(set.value("dl").toObject().value("q1").toObject().value("lock"), QJsonValue(false));
    // Naming queues locks those only; a missing one is an error.
    EXPECT_EQ(queues(modem(0), QJsonObject{{"action", "lock"}, {"q1", QJsonObject()}, {"q9", QJsonObject()}}),
              error("lock", {m + ": 'q9' queue not exist"}));
    EXPECT_EQ(queues(modem(0), QJsonObject{{"action", "unlock"}, {"q2", QJsonObject()}}), ok("unlock"));
    set = stored_set();
    EXPECT_EQ(set.value("lock"), QJsonValue(true));
    EXPECT_EQ(set.value("dl").toObject().value("q1").toObject().value("lock"), QJsonValue(true));
    EXPECT_EQ(set.value("dl").toObject().value("q2").toObject().value("lock"), QJsonValue(false));

    EXPECT_EQ(queues(modem(0), QJsonObject{{"action", "repeat"}, {"q1", QJsonObject{{"e1", QJsonObject()}}}}),
              ok("repeat"));
    EXPECT_EQ(queues(modem(0), QJsonObject{{"action", "repeat"}, {"q9", QJsonObject()}}),
              error("repeat", {m + ": 'q9' queue not exist"}));

    // Delete one entry, a missing entry, a whole queue and a missing queue.
    EXPECT_EQ(queues(modem(0), QJsonObject{{"action", "delete"},
                                           {"q1", QJsonObject{{"e1", QJsonObject()}, {"e7", QJsonObject()}}},
                                           {"q2", QJsonObject()},
                                           {"q9", QJsonObject()}}),
              error("delete", {m + ": 'e7' in 'q1' queue not exist", m + ": 'q9' queue not exist"}));
    set = stored_set();
    EXPECT_EQ(set.value("dl").toObject().keys(), QStringList{"q1"});
    const QJsonObject q1 = set.value("dl").toObject().value("q1").toObject();
    EXPECT_FALSE(q1.contains("e1"));
    EXPECT_TRUE(q1.contains("e2"));
}

TEST_P(DownlinkCommands, QueueListingAcrossModemsForAdmins) {
    const QJsonObject entry{{"data", QJsonObject{{"raw_payload", "0a"}}}};
    // One request for many modems; modem 2 belongs to another driver and is left out.
    const QJsonObject created = call(
        "dl_queue", QJsonObject{{"all", QJsonObject{{"action", "create"},
                                                    {"q1", QJsonObject{{"e1", entry}}},
                                                    {"modem_id", ids({modem(0), modem(1), modem(2)})}}}});
    EXPECT_EQ(created.value(key_of(modem(0))), QJsonValue(ok("create")));
    EXPECT_EQ(created.value(key_of(modem(1))), QJsonValue(ok("create")));
    EXPECT_FALSE(created.contains(key_of(modem(2))));
    EXPECT_EQ(created.value("all"), QJsonValue(QJsonObject{{"action", "create"},
                                                           {"q1", QJsonObject{{"e1", entry}}},
                                                           {"modem_id", ids({modem(0), modem(1)})}}));

    const QJsonObject listed{{"action", "get"}, {"status", "ok"}};
    EXPECT_EQ(call("dl_queue", QJsonObject{{"mode", "modem_count"}}), (QJsonObject{{"all", listed}}));
    QJsonObject counted = listed;
    counted["total_count"] = 2;
    EXPECT_EQ(call("dl_queue", QJsonObject{{"mode", "modem_count"}, {"admin", true}}),
              (QJsonObject{{"all", counted}}));
    QJsonObject modems = listed;
    modems["modem_list"] = ids({modem(0), modem(1)});
    EXPECT_EQ(call("dl_queue", QJsonObject{{"mode", "modem_list"}, {"admin", true}}),
              (QJsonObject{{"all", modems}}));
    modems["modem_list"] = ids({modem(1)});
    EXPECT_EQ(call("dl_queue", QJsonObject{{"mode", "modem_list"}, {"offset", 1}, {"limit", 5}}),
              (QJsonObject{{"all", modems}}));

    // An admin request without addressees reads a page of the modems that have queues.
    const QJsonObject page =
        call("dl_queue", QJsonObject{{"admin", true}, {"limit", 1}, {"mode", "queue_compact"}});
    EXPECT_EQ(
        page,
        (QJsonObject{{key_of(modem(0)), QJsonObject{{"action", "get"}, {"status", "ok"}, {"q1", "NONE"}}}}));
    // Without "admin" the same body addresses nobody.
    EXPECT_EQ(call("dl_queue", QJsonObject{{"limit", 1}}), QJsonObject());

    EXPECT_EQ(queues(modem(1), QJsonObject{{"action", "delete"}, {"q1", QJsonObject()}}), ok("delete"));
    counted["total_count"] = 1;
    EXPECT_EQ(call("dl_queue", QJsonObject{{"mode", "MODEM_COUNT"}, {"admin", true}}),
              (QJsonObject{{"all", counted}}));
}

INSTANTIATE_TEST_SUITE_P(Databases, DownlinkCommands, e2e::database_plugins(), e2e::database_label);

}  // namespace
