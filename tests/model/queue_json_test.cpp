#include <gtest/gtest.h>

#include <QJsonDocument>
#include <functional>
#include <vector>

#include "model/json.h"

namespace {

model::dl_queue_entry entry(const QString& db_id, int status) {
    model::dl_queue_entry e;
    e.data = QJsonObject{{"cmd", db_id}};
    e.db_id = db_id;
    e.repeat = 2;
    e.status = status;
    e.type = "typical";
    e.dl_phy = 3;
    e.station_id = 44;
    e.frequency = 1;
    e.f_ack = 0;
    e.f_system = 1;
    return e;
}

model::dl_queues sample_set() {
    model::dl_queues s;
    model::dl_queue& daily = s.dl["daily"];
    daily.repeat = 5;
    daily.start_from = 3600;
    daily.start_ts = 1700000000;
    daily.ttl = 86400;
    daily.lock = true;
    daily.status = model::WAIT;
    daily.timeout = 120;
    daily.entries["a_first"] = entry("id-1", model::DONE);
    daily.entries["b_second"] = entry("id-2", model::OUTDATE);
    s.dl["empty"] = model::dl_queue{};
    s.status = model::FAIL;
    s.lock = true;
    return s;
}

}  // namespace

TEST(DlQueueStatus, NamesBothWays) {
    const char* names[] = {"NONE", "DONE", "WAIT", "FAIL", "OUTDATE"};
    for (int i = 0; i < 5; ++i) {
        EXPECT_EQ(model::dl_queue_status_name(i), names[i]);
        EXPECT_EQ(model::dl_queue_status_from_name(names[i]), i);
    }
    EXPECT_EQ(model::dl_queue_status_name(5), "UNKNOWN");
    EXPECT_EQ(model::dl_queue_status_name(7), "UNKNOWN");
    EXPECT_EQ(model::dl_queue_status_name(-1), "UNKNOWN");
    EXPECT_EQ(model::dl_queue_status_from_name("UNKNOWN"), model::NONE);
    EXPECT_EQ(model::dl_queue_status_from_name("OUTDATED"), model::NONE);
    EXPECT_EQ(model::dl_queue_status_from_name("done"), model::NONE);
    EXPECT_EQ(model::dl_queue_status_from_name(""), model::NONE);
}

TEST(DlQueuesJson, WriterForm) {
    model::dl_queues s;
    s.dl["q"].entries["m"] = model::dl_queue_entry{};
    s.dl["q"].status = 7;
    s.status = model::DONE;

    const QJsonObject expected = QJsonDocument::fromJson(R"({
        "dl": {"q": {"m": {"data": {}, "db_id": "", "repeat": 0, "status": "NONE", "type": "", "dl_phy": 63,
                           "station_id": 0, "frequency": 0, "f_ack": 1, "f_system": 0},
                     "repeat": 0, "start_from": 0, "start_ts": 0, "ttl": 0, "lock": false,
                     "status": "UNKNOWN", "timeout": 0}},
        "status": "DONE", "lock": false})")
                                     .object();
    EXPECT_EQ(model::to_json(s), expected) << QJsonDocument(model::to_json(s)).toJson().toStdString();
}

TEST(DlQueuesJson, SetRoundTrips) {
    const model::dl_queues original = sample_set();
    const model::dl_queues back = model::dl_queues_from_json(model::to_json(original));
    EXPECT_TRUE(back == original);
    ASSERT_EQ(back.dl.size(), 2u);
    EXPECT_EQ(back.dl.at("daily").entries.at("b_second").status, model::OUTDATE);
    EXPECT_EQ(back.dl.at("daily").ttl, 86400);
}

TEST(DlQueuesJson, QueueMembersAreJudgedByNameAndType) {
    const model::dl_queue q = model::dl_queue_from_json(
        {{"ttl", "5"}, {"lock", 1}, {"status", 2}, {"timeout", 9.9}, {"x", QJsonObject{}}, {"y", "entry?"}});
    EXPECT_EQ(q.ttl, 0);
    EXPECT_FALSE(q.lock);
    EXPECT_EQ(q.status, model::NONE);
    EXPECT_EQ(q.timeout, 9);
    ASSERT_EQ(q.entries.size(), 1u);
    const model::dl_queue_entry& x = q.entries.at("x");
    EXPECT_EQ(x.dl_phy, 63);
    EXPECT_EQ(x.f_ack, 1);
    EXPECT_EQ(x.repeat, 0);
    EXPECT_EQ(x.f_system, 0);
    EXPECT_EQ(x.status, model::NONE);
    EXPECT_TRUE(x.data.isEmpty());
}

TEST(DlQueuesJson, EqualityCoversEveryField) {
    const model::dl_queues base = sample_set();
    using mutation = std::function<void(model::dl_queues&)>;
    auto first = [](model::dl_queues& s) -> model::dl_queue_entry& {
        return s.dl["daily"].entries["a_first"];
    };
    const std::vector<mutation> mutations = {
        [](model::dl_queues& s) { s.status = model::NONE; },
        [](model::dl_queues& s) { s.lock = false; },
        [](model::dl_queues& s) { s.dl.erase("empty"); },
        [](model::dl_queues& s) { s.dl["daily"].repeat++; },
        [](model::dl_queues& s) { s.dl["daily"].start_from++; },
        [](model::dl_queues& s) { s.dl["daily"].start_ts++; },
        [](model::dl_queues& s) { s.dl["daily"].ttl++; },
        [](model::dl_queues& s) { s.dl["daily"].lock = false; },
        [](model::dl_queues& s) { s.dl["daily"].status = model::DONE; },
        [](model::dl_queues& s) { s.dl["daily"].timeout++; },
        [](model::dl_queues& s) { s.dl["daily"].entries.erase("b_second"); },
        [&](model::dl_queues& s) { first(s).data["extra"] = 1; },
        [&](model::dl_queues& s) { first(s).db_id = "other"; },
        [&](model::dl_queues& s) { first(s).repeat++; },
        [&](model::dl_queues& s) { first(s).status = model::FAIL; },
        [&](model::dl_queues& s) { first(s).type = "other"; },
        [&](model::dl_queues& s) { first(s).dl_phy++; },
        [&](model::dl_queues& s) { first(s).station_id++; },
        [&](model::dl_queues& s) { first(s).frequency++; },
        [&](model::dl_queues& s) { first(s).f_ack++; },
        [&](model::dl_queues& s) { first(s).f_system++; },
    };
    EXPECT_TRUE(sample_set() == base);
    for (size_t i = 0; i < mutations.size(); ++i) {
        model::dl_queues changed = base;
        mutations[i](changed);
        EXPECT_TRUE(changed != base) << "mutation " << i << " went unnoticed";
    }
}

// A stored queue whose numbers no int holds (a hand-edited store, another writer) keeps
// the defaults for them, as a member of the wrong type does; -2147483648.9 still fits.
TEST(DlQueuesJson, NumbersOutsideTheIntRangeAreNotTaken) {
    const model::dl_queue q = model::dl_queue_from_json({{"repeat", 5.7e9},
                                                         {"start_from", -2147483649.0},
                                                         {"start_ts", 1e300},
                                                         {"ttl", -2147483648.9},
                                                         {"timeout", 2147483647.5}});
    EXPECT_EQ(q.repeat, 0);
    EXPECT_EQ(q.start_from, 0);
    EXPECT_EQ(q.start_ts, 0);
    EXPECT_EQ(q.ttl, -2147483647 - 1);
    EXPECT_EQ(q.timeout, 2147483647);
}
