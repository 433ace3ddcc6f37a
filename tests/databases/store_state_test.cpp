#include <QJsonArray>

#include "tests/databases/store_fixture.h"

namespace {

bool same_entry(const model::dl_queue_entry& a, const model::dl_queue_entry& b) {
    return a.data == b.data && a.db_id == b.db_id && a.repeat == b.repeat && a.status == b.status &&
           a.type == b.type && a.dl_phy == b.dl_phy && a.station_id == b.station_id &&
           a.frequency == b.frequency && a.f_ack == b.f_ack && a.f_system == b.f_system;
}

bool same_queue(const model::dl_queue& a, const model::dl_queue& b) {
    if (a.repeat != b.repeat || a.start_from != b.start_from || a.start_ts != b.start_ts || a.ttl != b.ttl ||
        a.lock != b.lock || a.status != b.status || a.timeout != b.timeout ||
        a.entries.size() != b.entries.size()) {
        return false;
    }
    return std::equal(
        a.entries.begin(), a.entries.end(), b.entries.begin(),
        [](const auto& x, const auto& y) { return x.first == y.first && same_entry(x.second, y.second); });
}

bool same_set(const model::dl_queues& a, const model::dl_queues& b) {
    if (a.status != b.status || a.lock != b.lock || a.dl.size() != b.dl.size()) {
        return false;
    }
    return std::equal(a.dl.begin(), a.dl.end(), b.dl.begin(), [](const auto& x, const auto& y) {
        return x.first == y.first && same_queue(x.second, y.second);
    });
}

model::dl_queues one_queue(const QString& name) {
    model::dl_queues set;
    set.dl[name].entries["1"].type = "open";
    return set;
}

}  // namespace

TEST_P(StoreSuite, StateEntriesKeepJsonTextParsed) {
    state->begin(60);
    state->set(60, "common", QByteArray(R"({"rssi": -90, "phy": "x"})"));
    state->set(60, "count", QByteArray("42"));
    state->set(60, "raw", QByteArray("not json {"));
    state->set(60, "value", QJsonValue(QJsonArray{1, 2}));
    state->end(60, 0);

    EXPECT_EQ(state->get(60, "common"), QJsonValue(QJsonObject{{"rssi", -90}, {"phy", "x"}}));
    EXPECT_EQ(state->get(60, "count"), QJsonValue(42));
    EXPECT_EQ(state->get(60, "raw"), QJsonValue("not json {"));
    EXPECT_EQ(state->get(60, "value"), QJsonValue(QJsonArray{1, 2}));
    EXPECT_TRUE(state->get(60, "absent").isUndefined());
    EXPECT_TRUE(state->get(61, "common").isUndefined());
    EXPECT_EQ(state->state(60).keys(), (QStringList{"common", "count", "raw", "value"}));
    EXPECT_TRUE(state->state(61).isEmpty());
    EXPECT_EQ(state->mark(60), 0);
    EXPECT_EQ(state->mark(61), 0);

    state->begin(60);
    state->set(60, "count", QJsonValue(43));
    state->end(60, 1);
    EXPECT_EQ(state->get(60, "count"), QJsonValue(43));
    EXPECT_EQ(state->mark(60), 1);
    EXPECT_EQ(state->modems_with_state(), QList<int>{60});
}

TEST_P(StoreSuite, StateSaveReplacesAndRemoveDeletes) {
    state->set(62, "common", QJsonValue("old"));
    state->set(63, "common", QJsonValue("other"));
    const QJsonObject replacement{{"calib", QJsonObject{{"k", 1.5}}}, {"webapp", "w"}};
    state->save(62, replacement);
    EXPECT_EQ(state->state(62), replacement);
    EXPECT_TRUE(state->get(62, "common").isUndefined());
    EXPECT_EQ(state->get(62, "calib"), QJsonValue(QJsonObject{{"k", 1.5}}));

    state->remove(62);
    EXPECT_TRUE(state->state(62).isEmpty());
    EXPECT_TRUE(state->get(62, "calib").isUndefined());
    EXPECT_EQ(state->modems_with_state(), QList<int>{63});
    EXPECT_EQ(state->get(63, "common"), QJsonValue("other"));

    // The reparse reset: delete, save, mark.
    state->save(62, replacement);
    state->end(62, 1);
    EXPECT_EQ(state->state(62), replacement);
    EXPECT_EQ(state->mark(62), 1);
}

TEST_P(StoreSuite, QueueSetsRoundTrip) {
    auto& queues = state->queues();
    EXPECT_TRUE(same_set(queues.load(70), model::dl_queues()));

    model::dl_queues set;
    set.status = model::WAIT;
    set.lock = true;
    model::dl_queue& daily = set.dl["daily"];
    daily.repeat = 3;
    daily.start_from = 5;
    daily.start_ts = 1700000000;
    daily.ttl = 86400;
    daily.lock = true;
    daily.status = model::DONE;
    daily.timeout = 600;
    model::dl_queue_entry& entry = daily.entries["01"];
    entry.data = QJsonObject{{"cmd", "read"}};
    entry.db_id = "abc";
    entry.repeat = 2;
    entry.status = model::FAIL;
    entry.type = "read";
    entry.dl_phy = 12;
    entry.station_id = 4;
    entry.frequency = 868;
    entry.f_ack = 0;
    entry.f_system = 1;
    daily.entries["02"].type = "second";
    set.dl["other"].status = model::OUTDATE;

    state->prepare(70);
    queues.save(70, set, 1);
    EXPECT_TRUE(same_set(queues.load(70), set));
    EXPECT_TRUE(same_set(queues.load(71), model::dl_queues()));

    set.dl.erase("other");
    queues.save(70, set, 1);
    EXPECT_TRUE(same_set(queues.load(70), set));
}

TEST_P(StoreSuite, ListModemsPagesThroughModemsWithQueues) {
    auto& queues = state->queues();
    for (int modem : {9, 3, 5, 1, 4}) {
        queues.save(modem, one_queue("q"), 1);
    }
    queues.save(7, model::dl_queues(), 1);  // an empty set is no queue

    // A page, and the total count of modems with queues.
    const auto list = [this](int offset, int limit) {
        QList<int> page;
        const int total = state->list_modems(page, offset, limit);
        return std::make_pair(total, page);
    };
    EXPECT_EQ(list(0, 0), std::make_pair(5, QList<int>{1, 3, 4, 5, 9}));
    EXPECT_EQ(list(1, 2), std::make_pair(5, QList<int>{3, 4}));
    EXPECT_EQ(list(4, 2), std::make_pair(5, QList<int>{9}));
    EXPECT_EQ(list(10, 2), std::make_pair(5, QList<int>{}));

    state->clear_queues();
    EXPECT_EQ(list(0, 0), std::make_pair(0, QList<int>{}));
    EXPECT_TRUE(same_set(queues.load(3), model::dl_queues()));
}

TEST_P(StoreSuite, LockGuardsNestAndRelease) {
    std::shared_ptr<void> outer = state->lock(80);
    ASSERT_TRUE(outer);
    {
        // The same modem again from the same thread, as the queue step inside a command does.
        std::shared_ptr<void> inner = state->lock(80);
        EXPECT_TRUE(inner);
        std::shared_ptr<void> other = state->lock(81);
        EXPECT_TRUE(other);
        state->queues().save(80, one_queue("q"), 1);
    }
    outer.reset();
    std::shared_ptr<void> again = state->lock(80);
    EXPECT_TRUE(again);
    EXPECT_EQ(state->queues().load(80).dl.size(), 1u);
}

TEST_P(StoreSuite, EveryTestStartsEmpty) {
    model::roll_query query;
    query.modem_id = {10, 11, 20, 30, 40, 50, 60};
    query.from = at(0);
    query.to = at(1000);
    EXPECT_TRUE(roll_of(query).empty());
    EXPECT_TRUE(messages->ul().modems().isEmpty());
    EXPECT_EQ(messages->uplink_count(), 0);
    EXPECT_EQ(messages->downlink_count(), 0);
    EXPECT_EQ(eav->value_count(), 0);
    EXPECT_EQ(eav->event_count(), 0);
    EXPECT_TRUE(state->modems_with_state().isEmpty());
    QList<int> page;
    EXPECT_EQ(state->list_modems(page, 0, 0), 0);
    EXPECT_EQ(clients->devices().size(), 1u);  // the seed only
}
