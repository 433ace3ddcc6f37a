#include <gtest/gtest.h>
#include <QJsonArray>

#include "command_fixture.h"
#include "model/json.h"

using command_test::CommandFixture;

namespace {

// Modem 1: queue "a" (WAIT, entries "m1" FAIL with repeat 2, "m2" DONE) and queue "b"
// (DONE, locked, ttl 60); the set itself is WAIT. Modem 2: queue "a" (NONE).
// Modem 3 has no queues.
class DlQueue : public ::testing::Test {
protected:
    void SetUp() override {
        model::dl_queues one;
        one.status = model::WAIT;
        model::dl_queue a;
        a.status = model::WAIT;
        a.repeat = 3;
        a.entries["m1"].status = model::FAIL;
        a.entries["m1"].repeat = 2;
        a.entries["m1"].data = QJsonObject{{"v", 1}};
        a.entries["m2"].status = model::DONE;
        model::dl_queue b;
        b.status = model::DONE;
        b.lock = true;
        b.ttl = 60;
        one.dl["a"] = a;
        one.dl["b"] = b;
        save(1, one);

        model::dl_queues two;
        two.dl["a"] = model::dl_queue();
        save(2, two);
    }

    void save(int modem, const model::dl_queues& set) { f.context->state->queues().save(modem, set, 1); }
    model::dl_queues load(int modem) { return f.context->state->queues().load(modem); }
    QJsonObject run(const QJsonObject& body) { return f.run("dl_queue", body); }
    QJsonObject modem(const QJsonObject& reply, int id) {
        return reply.value(QString::number(id)).toObject();
    }

    CommandFixture f;
};

QJsonObject error_reply(const QString& action, const QJsonArray& texts) {
    return QJsonObject{{"action", action}, {"status", "error"}, {"result", texts}};
}

const QJsonObject ok_get{{"action", "get"}, {"status", "ok"}};

}  // namespace

// ---- modes and listings ----------------------------------------------------------------

TEST_F(DlQueue, NormalGetShowsTheWholeSet) {
    const QJsonObject reply = run(QJsonObject{{"1", QJsonObject{{"action", "get"}}}});
    EXPECT_EQ(reply.keys(), QStringList{"1"});
    EXPECT_EQ(modem(reply, 1),
              (QJsonObject{{"action", "get"}, {"status", "ok"}, {"result", model::to_json(load(1))}}));
}

TEST_F(DlQueue, ModeIsCaseInsensitiveAndUnknownModesAreNormal) {
    const QJsonObject compact =
        run(QJsonObject{{"mode", "QUEUE_Compact"}, {"1", QJsonObject{{"action", "get"}}}});
    EXPECT_EQ(modem(compact, 1),
              (QJsonObject{{"action", "get"}, {"status", "ok"}, {"a", "WAIT"}, {"b", "DONE"}}));

    const QJsonObject unknown = run(QJsonObject{{"mode", "fancy"}, {"1", QJsonObject{{"action", "get"}}}});
    EXPECT_TRUE(modem(unknown, 1).contains("result"));
}

TEST_F(DlQueue, ModemCompactGivesTheSetStatus) {
    const QJsonObject reply = run(QJsonObject{{"mode", "modem_compact"},
                                              {"1", QJsonObject{{"action", "get"}}},
                                              {"3", QJsonObject{{"action", "get"}}}});
    EXPECT_EQ(modem(reply, 1), (QJsonObject{{"action", "get"}, {"status", "WAIT"}}));
    EXPECT_EQ(modem(reply, 3), (QJsonObject{{"action", "get"}, {"status", "NONE"}}));
}

TEST_F(DlQueue, QueueListGroupsModemsByQueueStatus) {
    const QJsonObject reply = run(QJsonObject{{"mode", "queue_list"},
                                              {"1", QJsonObject{{"action", "get"}}},
                                              {"2", QJsonObject{{"action", "get"}}}});
    EXPECT_EQ(modem(reply, 1), (QJsonObject{{"action", "get"}}));
    EXPECT_EQ(modem(reply, 2), (QJsonObject{{"action", "get"}}));
    const QJsonObject a{{"NONE", QJsonArray{2}},
                        {"DONE", QJsonArray{}},
                        {"WAIT", QJsonArray{1}},
                        {"FAIL", QJsonArray{}},
                        {"OUTDATE", QJsonArray{}}};
    const QJsonObject b{{"NONE", QJsonArray{}},
                        {"DONE", QJsonArray{1}},
                        {"WAIT", QJsonArray{}},
                        {"FAIL", QJsonArray{}},
                        {"OUTDATE", QJsonArray{}}};
    QJsonObject all = ok_get;
    all["dl"] = QJsonObject{{"a", a}, {"b", b}};
    EXPECT_EQ(reply.value("all").toObject(), all);
}

TEST_F(DlQueue, ModemCountNeedsAdmin) {
    EXPECT_EQ(run(QJsonObject{{"mode", "modem_count"}}), (QJsonObject{{"all", ok_get}}));
    QJsonObject counted = ok_get;
    counted["total_count"] = 2;
    EXPECT_EQ(run(QJsonObject{{"mode", "modem_count"}, {"admin", true}, {"limit", 1}}),
              (QJsonObject{{"all", counted}}));
}

TEST_F(DlQueue, ModemListPagesThroughModemsWithQueues) {
    QJsonObject listed = ok_get;
    listed["modem_list"] = QJsonArray{2};
    EXPECT_EQ(run(QJsonObject{{"mode", "modem_list"}, {"offset", 1}, {"limit", 5}}),
              (QJsonObject{{"all", listed}}));
}

TEST_F(DlQueue, AdminWithoutAddresseesGetsAPageOfModems) {
    const QJsonObject reply = run(QJsonObject{{"admin", true}, {"limit", 1}});
    EXPECT_EQ(reply.keys(), QStringList{"1"});
    EXPECT_EQ(modem(reply, 1).value("status"), QJsonValue("ok"));
    EXPECT_EQ(run(QJsonObject{{"admin", true}}).keys(), (QStringList{"1", "2"}));
    EXPECT_EQ(run(QJsonObject()), QJsonObject());
}

TEST_F(DlQueue, ManyModemRequestIsEchoedWithTheProcessedModems) {
    const QJsonObject all{{"action", "lock"}, {"modem_id", QJsonArray{1, 9, 2, 4}}};
    const QJsonObject reply = run(QJsonObject{{"all", all}});
    EXPECT_EQ(reply.keys(), (QStringList{"1", "2", "all"}));
    EXPECT_EQ(modem(reply, 1), (QJsonObject{{"action", "lock"}, {"status", "ok"}}));
    EXPECT_EQ(reply.value("all").toObject(),
              (QJsonObject{{"action", "lock"}, {"modem_id", QJsonArray{1, 2}}}));
    EXPECT_TRUE(load(1).lock);
    EXPECT_TRUE(load(2).lock);
}

TEST_F(DlQueue, KeysThatAreNotModemIdsOrForeignModemsAreDropped) {
    const QJsonObject get{{"action", "get"}};
    const QJsonObject reply =
        run(QJsonObject{{"x1", get}, {"9", get}, {"99999999999", get}, {"all", 5}, {"2", get}});
    EXPECT_EQ(reply.keys(), QStringList{"2"});
    EXPECT_TRUE(f.log_text().contains("'x1'"));
    EXPECT_TRUE(f.log_text().contains("'99999999999'"));
}

TEST_F(DlQueue, MissingOrUnknownActionNamesTheModem) {
    const QJsonObject reply = run(QJsonObject{{"1", QJsonObject()}, {"2", QJsonObject{{"action", "GET"}}}});
    EXPECT_EQ(modem(reply, 1), error_reply("", QJsonArray{"1: unknown action"}));
    EXPECT_EQ(modem(reply, 2), error_reply("GET", QJsonArray{"2: unknown action"}));
}

// ---- delete and repeat -----------------------------------------------------------------

TEST_F(DlQueue, DeleteWholeQueuesAndNamedEntries) {
    const QJsonObject reply =
        run(QJsonObject{{"1", QJsonObject{{"action", "delete"},
                                          {"b", QJsonObject()},
                                          {"a", QJsonObject{{"m2", QJsonObject()}, {"m9", QJsonObject()}}},
                                          {"z", QJsonObject()}}}});
    EXPECT_EQ(modem(reply, 1),
              error_reply("delete", QJsonArray{"1: 'm9' in 'a' queue not exist", "1: 'z' queue not exist"}));
    const model::dl_queues set = load(1);
    EXPECT_EQ(set.dl.size(), 1u);
    ASSERT_EQ(set.dl.count("a"), 1u);
    EXPECT_EQ(set.dl.at("a").entries.size(), 1u);
    EXPECT_EQ(set.dl.at("a").entries.count("m1"), 1u);
}

TEST_F(DlQueue, RepeatResetsEntriesAndTheQueueStatus) {
    const QJsonObject reply =
        run(QJsonObject{{"1", QJsonObject{{"action", "repeat"}, {"a", QJsonObject()}}}});
    EXPECT_EQ(modem(reply, 1), (QJsonObject{{"action", "repeat"}, {"status", "ok"}}));
    const model::dl_queue a = load(1).dl.at("a");
    EXPECT_EQ(a.status, model::NONE);
    for (const auto& entry : a.entries) {
        EXPECT_EQ(entry.second.status, model::NONE) << entry.first.toStdString();
        EXPECT_EQ(entry.second.repeat, 0) << entry.first.toStdString();
    }
}

TEST_F(DlQueue, RepeatOfNamedEntriesAndMissingItems) {
    const QJsonObject reply = run(QJsonObject{{"1", QJsonObject{{"action", "repeat"},
                                                                {"a", QJsonObject{{"m1", QJsonObject()}}},
                                                                {"q", QJsonObject{{"m1", QJsonObject()}}}}}});
    EXPECT_EQ(modem(reply, 1), error_reply("repeat", QJsonArray{"1: 'q' queue not exist"}));
    const model::dl_queue a = load(1).dl.at("a");
    EXPECT_EQ(a.entries.at("m1").status, model::NONE);
    EXPECT_EQ(a.entries.at("m1").repeat, 0);
    EXPECT_EQ(a.entries.at("m2").status, model::DONE);
    EXPECT_EQ(a.status, model::NONE);
}

// ---- create and update -----------------------------------------------------------------

TEST_F(DlQueue, CreateOfTwoQueuesOneExisting) {
    const QJsonObject fresh{{"ttl", 3600},
                            {"repeat", 2.9},
                            {"lock", 1},
                            {"timeout", "30"},
                            {"e1", QJsonObject{{"data", QJsonObject{{"k", 1}}}, {"dl_phy", 5}}},
                            {"e2", QJsonObject{{"type", "raw"}}},
                            {"note", "text"}};
    const QJsonObject reply =
        run(QJsonObject{{"1", QJsonObject{{"action", "create"}, {"a", QJsonObject()}, {"c", fresh}}}});
    EXPECT_EQ(modem(reply, 1), error_reply("create", QJsonArray{"1: 'a' allready exist",
                                                                "1: 'e2' in 'c' queue not exist data"}));
    const model::dl_queues set = load(1);
    ASSERT_EQ(set.dl.count("c"), 1u);
    const model::dl_queue c = set.dl.at("c");
    EXPECT_EQ(c.ttl, 3600);
    EXPECT_EQ(c.repeat, 2);
    EXPECT_FALSE(c.lock);
    EXPECT_EQ(c.timeout, 0);
    ASSERT_EQ(c.entries.size(), 1u);
    const model::dl_queue_entry e1 = c.entries.at("e1");
    EXPECT_EQ(e1.type, "typical");
    EXPECT_EQ(e1.data, (QJsonObject{{"k", 1}}));
    EXPECT_EQ(e1.dl_phy, 5);
    EXPECT_EQ(e1.f_ack, 0);
    EXPECT_EQ(e1.status, model::NONE);
    EXPECT_EQ(set.dl.at("a").entries.size(), 2u);  // the existing queue is untouched
}

TEST_F(DlQueue, UpdateTakesTtlOnlyAsABoolean) {
    run(QJsonObject{{"1", QJsonObject{{"action", "update"}, {"b", QJsonObject{{"ttl", 5}}}}}});
    EXPECT_EQ(load(1).dl.at("b").ttl, 60);
    const QJsonObject reply =
        run(QJsonObject{{"1", QJsonObject{{"action", "update"}, {"b", QJsonObject{{"ttl", true}}}}}});
    EXPECT_EQ(modem(reply, 1), (QJsonObject{{"action", "update"}, {"status", "ok"}}));
    EXPECT_EQ(load(1).dl.at("b").ttl, 1);
    run(QJsonObject{{"1", QJsonObject{{"action", "update"}, {"b", QJsonObject{{"ttl", false}}}}}});
    EXPECT_EQ(load(1).dl.at("b").ttl, 0);
}

TEST_F(DlQueue, UpdateChangesSettingsAndEntryFields) {
    const QJsonObject a{{"repeat", 7.8},
                        {"start_from", 100},
                        {"lock", true},
                        {"m1", QJsonObject{{"data", QJsonObject{{"w", 2}}}, {"frequency", 3}, {"type", 5}}},
                        {"m9", QJsonObject{{"data", QJsonObject()}}}};
    const QJsonObject reply = run(QJsonObject{
        {"1", QJsonObject{
                  {"action", "update"}, {"a", a}, {"b", QJsonObject()}, {"x", QJsonObject{{"repeat", 1}}}}}});
    EXPECT_EQ(modem(reply, 1),
              error_reply("update", QJsonArray{"1: 'm9' in 'a' queue not exist", "1: 'b' queue is empty",
                                               "1: 'x' queue is not exist"}));
    const model::dl_queue queue = load(1).dl.at("a");
    EXPECT_EQ(queue.repeat, 7);
    EXPECT_EQ(queue.start_from, 100);
    EXPECT_TRUE(queue.lock);
    const model::dl_queue_entry m1 = queue.entries.at("m1");
    EXPECT_EQ(m1.data, (QJsonObject{{"w", 2}}));
    EXPECT_EQ(m1.frequency, 3);
    EXPECT_EQ(m1.type, "");   // a number is not a type text
    EXPECT_EQ(m1.repeat, 2);  // absent fields keep their values
    EXPECT_EQ(m1.status, model::FAIL);
}

// ---- lock and unlock -------------------------------------------------------------------

TEST_F(DlQueue, LockAloneLocksTheSetOnly) {
    run(QJsonObject{{"1", QJsonObject{{"action", "lock"}}}});
    const model::dl_queues set = load(1);
    EXPECT_TRUE(set.lock);
    EXPECT_FALSE(set.dl.at("a").lock);
    EXPECT_TRUE(set.dl.at("b").lock);
}

TEST_F(DlQueue, UnlockOfOneNamedQueue) {
    model::dl_queues set = load(1);
    set.lock = true;
    set.dl["a"].lock = true;
    save(1, set);
    const QJsonObject reply = run(
        QJsonObject{{"1", QJsonObject{{"action", "unlock"}, {"b", QJsonObject()}, {"q", QJsonObject()}}}});
    EXPECT_EQ(modem(reply, 1), error_reply("unlock", QJsonArray{"1: 'q' queue not exist"}));
    const model::dl_queues after = load(1);
    EXPECT_TRUE(after.lock);
    EXPECT_TRUE(after.dl.at("a").lock);
    EXPECT_FALSE(after.dl.at("b").lock);
}

// ---- bad input -------------------------------------------------------------------------

TEST_F(DlQueue, BadlyTypedRequestsNeverCrash) {
    EXPECT_EQ(f.run("dl_queue", QJsonDocument(QJsonArray{1, 2})), QJsonObject());
    const QJsonObject reply = run(QJsonObject{
        {"mode", 3}, {"admin", "yes"}, {"1", QJsonObject{{"action", "delete"}, {"a", 5}}}, {"2", "get"}});
    EXPECT_EQ(modem(reply, 1), (QJsonObject{{"action", "delete"}, {"status", "ok"}}));
    EXPECT_EQ(modem(reply, 2), error_reply("", QJsonArray{"2: unknown action"}));
    EXPECT_EQ(load(1).dl.count("a"), 1u);  // a queue value that is not an object is skipped
}
