// Store semantics of the SQLite plugin, through the plugin interfaces on a real file.

#include <QJsonArray>
#include <QJsonDocument>

#include "tests/databases/sqlite_support.h"

using namespace sqlite_test;

namespace {

class SqliteStore : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(m_dir.isValid());
        m_stores = open_stores(config_for(m_dir.filePath("store.db")));
    }

    QTemporaryDir m_dir;
    stores m_stores;
};

model::ul_message uplink(int modem, qint64 seconds, const QString& tag, QDateTime ttl = live_ttl()) {
    model::ul_message m;
    m.modem_id = modem;
    m.timestamp = at(seconds);
    m.time_detected = at(seconds - 100);
    m.tag = tag;
    m.ttl = ttl;
    m.unique_id = seconds;
    return m;
}

std::vector<qint64> times(const std::vector<model::ul_message>& list) {
    std::vector<qint64> out;
    for (const auto& m : list)
        out.push_back(m.timestamp.toSecsSinceEpoch());
    return out;
}

template <class T>
std::vector<qint64> record_times(const std::vector<T>& list) {
    std::vector<qint64> out;
    for (const auto& r : list)
        out.push_back(r.timestamp.toSecsSinceEpoch() - T0);
    return out;
}

model::roll_query roll(QList<int> modems, qint64 from, qint64 to) {
    model::roll_query q;
    q.modem_id = modems;
    q.from = at(from);
    q.to = at(to);
    return q;
}

}  // namespace

TEST_F(SqliteStore, RollQuerySelectsByModemTimeTagAndLimitInTimeOrder) {
    auto& ul = m_stores.messages->ul();
    ul.save(uplink(7, T0 + 30, "a"));  // stored out of time order on purpose
    ul.save(uplink(7, T0 + 0, "a"));
    ul.save(uplink(7, T0 + 10, "b"));
    ul.save(uplink(7, T0 + 20, "a"));
    ul.save(uplink(7, T0 + 15, "a", past_ttl()));  // expired: never returned
    ul.save(uplink(8, T0 + 10, "a"));

    model::per_modem<model::ul_message> out;
    ul.get_roll(out, roll({7}, T0 + 10, T0 + 20));  // bounds are inclusive
    ASSERT_EQ(out.size(), 1u);
    EXPECT_EQ(times(out[7]), (std::vector<qint64>{T0 + 10, T0 + 20}));

    out.clear();
    auto tagged = roll({7}, T0, T0 + 30);
    tagged.tag = QStringList{"a"};
    ul.get_roll(out, tagged);
    EXPECT_EQ(times(out[7]), (std::vector<qint64>{T0, T0 + 20, T0 + 30}));

    out.clear();
    auto limited = roll({7}, T0, T0 + 30);
    limited.limit = 2;
    ul.get_roll(out, limited);
    EXPECT_EQ(times(out[7]), (std::vector<qint64>{T0, T0 + 10}));

    out.clear();
    limited.limit = 0;  // no limit
    ul.get_roll(out, limited);
    EXPECT_EQ(out[7].size(), 4u);

    // The range applies to time_detected (timestamp - 100 here) when asked.
    out.clear();
    auto detected = roll({7}, T0 - 95, T0 - 80);
    detected.time_detected = true;
    ul.get_roll(out, detected);
    EXPECT_EQ(times(out[7]), (std::vector<qint64>{T0 + 10, T0 + 20}));

    // Only the asked modems; a modem without records has no key.
    out.clear();
    ul.get_roll(out, roll({8, 9}, T0, T0 + 30));
    ASSERT_EQ(out.size(), 1u);
    EXPECT_EQ(times(out[8]), (std::vector<qint64>{T0 + 10}));

    EXPECT_EQ(ul.modems(), (QList<int>{7, 8}));
    EXPECT_EQ(m_stores.messages->uplink_count(), 6);  // the expired row until it is purged
}

TEST_F(SqliteStore, UplinkKeepsEveryFieldAndReportsTheLastDevice) {
    model::ul_message m = uplink(21, T0, "t");
    m.station_id = 4001;
    m.bs_timezone_offset = -3;
    m.phy = "ul_phy_x";
    m.snr = -7;
    m.rssi = -120;
    m.unique_id = qint64(1) << 40;
    m.data = QJsonDocument(QJsonObject{{"v", 1.5}});
    m.extended_data = QJsonDocument(QJsonObject{{"e", QJsonArray{1, 2}}});
    m.parse_status = "parsed";
    m.hw_type = "old_hw";
    m.protocol = "proto7";
    m.payload = QByteArray::fromHex("00ff10");
    m.tz_mismatch = true;
    m.dl_phy = "dl_x";
    m.last_dl_bs_aver_busyness = 0.25;
    m.last_dl_bs_busyness = 0.5;
    m.iterator = 99;
    m_stores.messages->ul().save(m);
    model::ul_message later = uplink(21, T0 + 5, "t");
    later.protocol = "proto7";
    later.hw_type = "new_hw";
    m_stores.messages->ul().save(later);

    model::per_modem<model::ul_message> out;
    m_stores.messages->ul().get_roll(out, roll({21}, T0, T0));
    ASSERT_EQ(out[21].size(), 1u);
    const model::ul_message& r = out[21][0];
    EXPECT_EQ(r.modem_id, 21);
    EXPECT_EQ(r.station_id, 4001);
    EXPECT_EQ(r.ttl.toSecsSinceEpoch(), m.ttl.toSecsSinceEpoch());
    EXPECT_EQ(r.timestamp, at(T0));
    EXPECT_EQ(r.time_detected, at(T0 - 100));
    EXPECT_EQ(r.bs_timezone_offset, -3);
    EXPECT_EQ(r.phy, "ul_phy_x");
    EXPECT_EQ(r.snr, -7);
    EXPECT_EQ(r.rssi, -120);
    EXPECT_EQ(r.tag, "t");
    EXPECT_EQ(r.unique_id, qint64(1) << 40);
    EXPECT_EQ(r.data, m.data);
    EXPECT_EQ(r.extended_data, m.extended_data);
    EXPECT_EQ(r.parse_status, "parsed");
    EXPECT_EQ(r.hw_type, "old_hw");
    EXPECT_EQ(r.protocol, "proto7");
    EXPECT_EQ(r.payload, QByteArray::fromHex("00ff10"));
    EXPECT_TRUE(r.tz_mismatch);
    EXPECT_EQ(r.dl_phy, "dl_x");
    EXPECT_EQ(r.last_dl_bs_aver_busyness, 0.25);
    EXPECT_EQ(r.last_dl_bs_busyness, 0.5);
    EXPECT_EQ(r.iterator, 99);

    std::pair<QString, QString> device;
    m_stores.messages->ul().device(device, 21);
    EXPECT_EQ(device, std::make_pair(QString("proto7"), QString("new_hw")));
    m_stores.messages->ul().device(device, 22);
    EXPECT_EQ(device, std::make_pair(QString(), QString()));
}

TEST_F(SqliteStore, DownlinksGetFreshIdsStatusesAndNotFoundText) {
    auto& dl = m_stores.messages->dl();
    model::dl_message a;
    a.modem_id = 5;
    a.timestamp = at(T0);
    a.ttl = live_ttl();
    a.api_key = "key";
    a.user_id = "user";
    a.payload = QByteArray::fromHex("0a0b");
    a.data = QJsonObject{{"raw_payload", "0a0b"}};
    a.timeout = 600;
    a.dl_phy = 12;
    model::dl_message b = a;
    b.timestamp = at(T0 + 60);
    model::dl_message old = a;
    old.ttl = past_ttl();
    dl.save(a);
    dl.save(b);
    dl.save(old);
    EXPECT_FALSE(a.db_id.isEmpty());
    EXPECT_NE(a.db_id, b.db_id);

    const model::dl_message r = dl.get(a.db_id);
    EXPECT_EQ(r.db_id, a.db_id);
    EXPECT_EQ(r.modem_id, 5);
    EXPECT_EQ(r.timestamp, at(T0));
    EXPECT_EQ(r.api_key, "key");
    EXPECT_EQ(r.user_id, "user");
    EXPECT_EQ(r.payload, QByteArray::fromHex("0a0b"));
    EXPECT_EQ(r.data, a.data);
    EXPECT_EQ(r.timeout, 600);
    EXPECT_EQ(r.dl_phy, 12);
    EXPECT_EQ(r.f_ack, 1);
    EXPECT_EQ(r.dl_status, model::PENDING);

    try {
        dl.get("nope");
        ADD_FAILURE() << "an unknown id must throw";
    } catch (const QString& text) {
        EXPECT_EQ(text, "dl message nope not found");
    }
    EXPECT_THROW(dl.get(old.db_id), QString);  // expired

    model::dl_query q;
    q.modem_id = {5, 6};
    q.from = at(T0);
    q.to = at(T0 + 60);
    auto listed = dl.list(q);
    ASSERT_EQ(listed.size(), 1u);
    ASSERT_EQ(listed[5].size(), 2u);
    EXPECT_EQ(listed[5][0].db_id, a.db_id);
    EXPECT_EQ(listed[5][1].db_id, b.db_id);

    dl.set_status(a.db_id, model::EXECUTED);
    dl.set_status(b.db_id, model::WAIT_DATA);
    EXPECT_EQ(dl.get(a.db_id).dl_status, model::EXECUTED);
    auto pending = dl.list_not_acked(q);
    ASSERT_EQ(pending[5].size(), 1u);
    EXPECT_EQ(pending[5][0].db_id, b.db_id);
    EXPECT_THROW(dl.set_status("nope", model::EXECUTED), QString);
    try {
        dl.set_status(b.db_id, 4);  // no dl_status has that number
        ADD_FAILURE() << "a status outside PENDING..TIMEOUT must throw";
    } catch (const QString& text) {
        EXPECT_EQ(text, QString("dl status 4 of dl message %1 is not valid").arg(b.db_id));
    }
    EXPECT_EQ(dl.get(b.db_id).dl_status, model::WAIT_DATA);

    q.limit = 1;
    EXPECT_EQ(dl.list(q)[5].size(), 1u);
    EXPECT_EQ(m_stores.messages->downlink_count(), 3);
}

TEST_F(SqliteStore, ValuesKeepTheirTypesAndFilterByTagObisLimitAndFirstAndLast) {
    auto value = [](qint64 offset, const QString& obis, const QString& tag, QVariant v) {
        model::dev_value d;
        d.modem_id = 3;
        d.timestamp = at(T0 + offset);
        d.obis_code = obis;
        d.tag = tag;
        d.value = v;
        d.message_id = "m" + QString::number(offset);
        d.ttl = live_ttl();
        return d;
    };
    model::dev_value expired = value(12, "1.8.0", "t1", 1);
    expired.ttl = past_ttl();
    m_stores.eav->records().save_values({value(20, "1.8.0", "t1", QString("x")), value(0, "1.8.0", "t1", 5),
                                         value(10, "1.8.0", "t1", 2.5), value(5, "2.8.0", "t2", true),
                                         expired});

    model::value_query q;
    q.modem_id = {3};
    q.from = at(T0);
    q.to = at(T0 + 20);
    model::per_modem<model::dev_value> out;
    m_stores.eav->records().get_values(out, q);
    ASSERT_EQ(record_times(out[3]), (std::vector<qint64>{0, 5, 10, 20}));
    EXPECT_EQ(out[3][0].value.userType(), QMetaType::Int);
    EXPECT_EQ(out[3][0].value.toInt(), 5);
    EXPECT_EQ(out[3][1].value.userType(), QMetaType::Bool);
    EXPECT_TRUE(out[3][1].value.toBool());
    EXPECT_EQ(out[3][2].value.userType(), QMetaType::Double);
    EXPECT_EQ(out[3][2].value.toDouble(), 2.5);
    EXPECT_EQ(out[3][3].value.userType(), QMetaType::QString);
    EXPECT_EQ(out[3][3].value.toString(), "x");
    EXPECT_EQ(out[3][3].message_id, "m20");
    EXPECT_EQ(out[3][3].obis_code, "1.8.0");
    EXPECT_EQ(out[3][3].tag, "t1");

    auto run = [&](model::value_query query) {
        model::per_modem<model::dev_value> result;
        m_stores.eav->records().get_values(result, query);
        return record_times(result[3]);
    };
    auto by_obis = q;
    by_obis.obis_codes = QStringList{"2.8.0"};
    EXPECT_EQ(run(by_obis), (std::vector<qint64>{5}));
    auto by_tag = q;
    by_tag.tag = QStringList{"t1"};
    EXPECT_EQ(run(by_tag), (std::vector<qint64>{0, 10, 20}));
    auto limited = q;
    limited.limit = 2;
    EXPECT_EQ(run(limited), (std::vector<qint64>{0, 5}));
    auto ends = q;
    ends.first_and_last = true;  // 1.8.0: first 0, last 20; 2.8.0: its only value
    EXPECT_EQ(run(ends), (std::vector<qint64>{0, 5, 20}));
    auto narrow = q;
    narrow.from = at(T0 + 6);
    EXPECT_EQ(run(narrow), (std::vector<qint64>{10, 20}));
    EXPECT_EQ(m_stores.eav->value_count(), 5);
}

TEST_F(SqliteStore, EventsRoundTripAndKeepFirstAndLastPerCode) {
    auto event = [](qint64 offset, int code) {
        model::dev_event e;
        e.modem_id = 4;
        e.timestamp = at(T0 + offset);
        e.event_code = code;
        e.message_id = "id";
        e.message = "door opened";
        e.extended_data = QJsonDocument(QJsonObject{{"k", offset}});
        e.parameter = code * 10;
        e.ttl = live_ttl();
        return e;
    };
    m_stores.eav->records().save_events({event(10, 1), event(0, 1), event(7, 1), event(5, 2)});

    model::value_query q;
    q.modem_id = {4};
    q.from = at(T0);
    q.to = at(T0 + 100);
    model::per_modem<model::dev_event> out;
    m_stores.eav->records().get_events(out, q);
    ASSERT_EQ(record_times(out[4]), (std::vector<qint64>{0, 5, 7, 10}));
    EXPECT_EQ(out[4][1].event_code, 2);
    EXPECT_EQ(out[4][1].parameter, 20);
    EXPECT_EQ(out[4][1].message, "door opened");
    EXPECT_EQ(out[4][1].extended_data, QJsonDocument(QJsonObject{{"k", 5}}));

    out.clear();
    q.first_and_last = true;  // code 1: 0 and 10; code 2: 5
    m_stores.eav->records().get_events(out, q);
    EXPECT_EQ(record_times(out[4]), (std::vector<qint64>{0, 5, 10}));
    EXPECT_EQ(m_stores.eav->event_count(), 4);
}

TEST_F(SqliteStore, DriverStateEntriesMarkAndWholeState) {
    auto& st = *m_stores.state;
    st.begin(1);
    st.set(1, "common", QByteArray("{\"rssi\": -90}"));
    st.set(1, "raw", QByteArray("not json"));
    st.set(1, "count", QJsonValue(42));
    st.end(1, 0);

    EXPECT_EQ(st.get(1, "common"), QJsonValue(QJsonObject{{"rssi", -90}}));
    EXPECT_EQ(st.get(1, "raw"), QJsonValue("not json"));
    EXPECT_EQ(st.get(1, "count"), QJsonValue(42));
    EXPECT_TRUE(st.get(1, "absent").isUndefined());
    EXPECT_EQ(st.state(1).keys(), (QStringList{"common", "count", "raw"}));
    EXPECT_EQ(st.mark(1), 0);
    st.begin(1);
    st.end(1, 1);
    EXPECT_EQ(st.mark(1), 1);
    EXPECT_EQ(st.mark(2), 0);
    EXPECT_EQ(st.modems_with_state(), (QList<int>{1}));

    const QJsonObject kept{{"calib", QJsonObject{{"k", 1.5}}}};
    st.save(1, kept);
    EXPECT_EQ(st.state(1), kept);

    st.remove(1);
    EXPECT_TRUE(st.state(1).isEmpty());
    EXPECT_TRUE(st.get(1, "calib").isUndefined());
    EXPECT_TRUE(st.modems_with_state().isEmpty());
    st.begin(1);
    st.end(1, 1);  // a reset modem is marked after its state went
    EXPECT_EQ(st.mark(1), 1);
}

TEST_F(SqliteStore, QueueSetsListAndNestedLocks) {
    auto& st = *m_stores.state;
    EXPECT_EQ(st.queues().load(4), model::dl_queues{});

    model::dl_queues set;
    set.status = model::WAIT;
    model::dl_queue& queue = set.dl["q1"];
    queue.ttl = 3600;
    queue.entries["e1"].db_id = "abc";
    queue.entries["e1"].type = "raw";
    queue.entries["e1"].data = QJsonObject{{"raw_payload", "0a"}};
    st.prepare(4);
    st.queues().save(4, set, 1);
    st.queues().save(2, set, 1);
    st.queues().save(9, model::dl_queues{}, 1);  // an empty set is not listed
    EXPECT_EQ(st.queues().load(4), set);

    QList<int> page;
    EXPECT_EQ(st.list_modems(page, 0, 0), 2);
    EXPECT_EQ(page, (QList<int>{2, 4}));
    page.clear();
    EXPECT_EQ(st.list_modems(page, 1, 1), 2);
    EXPECT_EQ(page, (QList<int>{4}));

    {
        auto outer = st.lock(4);
        auto inner = st.lock(4);  // nesting on the one thread must not wait
        EXPECT_TRUE(outer && inner);
        st.queues().save(4, model::dl_queues{}, 1);
    }
    page.clear();
    EXPECT_EQ(st.list_modems(page, 0, 0), 1);
    EXPECT_EQ(page, (QList<int>{2}));

    st.clear_queues();
    page.clear();
    EXPECT_EQ(st.list_modems(page, 0, 0), 0);
    EXPECT_EQ(st.queues().load(2), model::dl_queues{});
}

TEST(SqliteRegistry, SeedRegistryClientsAndIdsWithWildcards) {
    QTemporaryDir dir;
    QJsonObject config = config_for(dir.filePath("store.db"));
    config["devices"] = QJsonObject{
        {"77", QJsonObject{{"protocol", "proto7"}, {"hw_type", "X"}, {"clients", QJsonArray{"c1", "c2"}}}}};
    stores s = open_stores(config);
    auto& registry = *s.clients;

    EXPECT_EQ(registry.clients_store().clients(77), (QStringList{"c1", "c2"}));
    EXPECT_EQ(registry.clients_store().device(77), std::make_pair(QString("proto7"), QString("X")));
    EXPECT_TRUE(registry.clients_store().clients(78).isEmpty());
    EXPECT_EQ(registry.clients_store().device(78), std::make_pair(QString(), QString()));

    registry.set_device(78, {"proto7", "Y", {}});
    registry.set_device(79, {"other", "X", {"c3"}});
    EXPECT_EQ(s.state->ids("*", "*"), (QList<int>{77, 78, 79}));
    EXPECT_EQ(s.state->ids("X", "*"), (QList<int>{77, 79}));
    EXPECT_EQ(s.state->ids("*", "proto7"), (QList<int>{77, 78}));
    EXPECT_EQ(s.state->ids("Y", "proto7"), (QList<int>{78}));
    EXPECT_TRUE(s.state->ids("Y", "other").isEmpty());

    registry.set_device(79, {"other", "Z", {}});  // update replaces the whole entry
    EXPECT_TRUE(registry.remove_device(78));
    EXPECT_FALSE(registry.remove_device(78));
    const std::map<int, model::device_record> expected{{77, {"proto7", "X", {"c1", "c2"}}},
                                                       {79, {"other", "Z", {}}}};
    EXPECT_EQ(registry.devices(), expected);
}

TEST_F(SqliteStore, LongRecordListsAreStoredWholeAndInListOrder) {
    // Rows of one time are returned in the order they were saved: 250 values and 150
    // events run past the rows that one INSERT carries.
    QList<model::dev_value> values;
    for (int i = 0; i < 250; ++i) {
        model::dev_value v;
        v.modem_id = 8;
        v.timestamp = at(T0);
        v.obis_code = i % 2 ? "1.8.0" : "2.8.0";
        v.tag = "t";
        v.value = i % 3 ? QVariant(i) : QVariant(QString("s%1").arg(i));
        v.message_id = QString("m%1").arg(i);
        v.ttl = live_ttl();
        values.append(v);
    }
    QList<model::dev_event> events;
    for (int i = 0; i < 150; ++i) {
        model::dev_event e;
        e.modem_id = 8;
        e.timestamp = at(T0);
        e.event_code = 1000 - i;
        e.message_id = "id";
        e.message = QString("e%1").arg(i);
        e.parameter = i;
        e.ttl = live_ttl();
        events.append(e);
    }
    m_stores.eav->records().save_values(values);
    m_stores.eav->records().save_events(events);

    model::value_query q;
    q.modem_id = {8};
    q.from = at(T0);
    q.to = at(T0);
    q.limit = 1000;
    model::per_modem<model::dev_value> stored_values;
    m_stores.eav->records().get_values(stored_values, q);
    ASSERT_EQ(stored_values[8].size(), 250u);
    for (int i = 0; i < 250; ++i) {
        const auto& v = stored_values[8][size_t(i)];
        ASSERT_EQ(v.message_id, QString("m%1").arg(i));
        EXPECT_EQ(v.obis_code, i % 2 ? "1.8.0" : "2.8.0");
        EXPECT_EQ(v.value, i % 3 ? QVariant(i) : QVariant(QString("s%1").arg(i)));
    }
    model::per_modem<model::dev_event> stored_events;
    m_stores.eav->records().get_events(stored_events, q);
    ASSERT_EQ(stored_events[8].size(), 150u);
    for (int i = 0; i < 150; ++i) {
        const auto& e = stored_events[8][size_t(i)];
        ASSERT_EQ(e.message, QString("e%1").arg(i));
        EXPECT_EQ(e.event_code, 1000 - i);
        EXPECT_EQ(e.parameter, i);
        EXPECT_TRUE(e.extended_data.isNull());
    }
    EXPECT_EQ(m_stores.eav->value_count(), 250);
    EXPECT_EQ(m_stores.eav->event_count(), 150);
}
