// What a query may cost: each modem once, the default limit for a limit of 0 or less,
// at most 300000 records per result in all, and whole-second bounds that take in the
// whole second (stored times keep their milliseconds).

#include "tests/databases/store_fixture.h"

namespace {

model::value_query values_query(QList<int> modems, QDateTime from, QDateTime to, int limit) {
    model::value_query query;
    query.modem_id = modems;
    query.from = from;
    query.to = to;
    query.limit = limit;
    return query;
}

model::roll_query roll_query(QList<int> modems, QDateTime from, QDateTime to) {
    model::roll_query query;
    query.modem_id = modems;
    query.from = from;
    query.to = to;
    return query;
}

model::dl_query downlink_query(QList<int> modems, QDateTime from, QDateTime to) {
    model::dl_query query;
    query.modem_id = modems;
    query.from = from;
    query.to = to;
    return query;
}

qint64 number(const model::dev_value& v) {
    return qint64(v.value.toDouble());
}
qint64 parameter(const model::dev_event& e) {
    return e.parameter;
}
qint64 unique_id(const model::ul_message& m) {
    return m.unique_id;
}
qint64 timeout(const model::dl_message& m) {
    return m.timeout;
}

size_t total(const id_map& result) {
    size_t count = 0;
    for (const auto& entry : result) {
        count += entry.second.size();
    }
    return count;
}

// `count` values of one modem, one a second from start + 1 on, numbered 1.. in time order.
QList<model::dev_value> series(int modem, int count, const QDateTime& start) {
    QList<model::dev_value> values;
    values.reserve(count);
    for (int i = 1; i <= count; ++i) {
        model::dev_value v;
        v.modem_id = modem;
        v.timestamp = start.addSecs(i);
        v.obis_code = "1.8.0";
        v.tag = "energy";
        v.value = double(i);
        values.append(v);
    }
    return values;
}

}  // namespace

TEST_P(StoreSuite, ModemsListedTwiceAreSearchedOnce) {
    messages->ul().save(uplink(5, 10, 1));
    messages->ul().save(uplink(6, 10, 2));
    eav->records().save_values({value(5, 10, "1.8.0", "energy", 3)});
    eav->records().save_events({event(5, 10, 7, 4)});
    model::dl_message downlink_of_5 = downlink(5, 10, 600);
    messages->dl().save(downlink_of_5);

    const QList<int> twice{5, 6, 5, 5};
    EXPECT_EQ(ids_of(roll_of(roll_query(twice, at(0), at(100))), unique_id), (id_map{{5, {1}}, {6, {2}}}));
    EXPECT_EQ(ids_of(values_of(values_query(twice, at(0), at(100), 10)), number), (id_map{{5, {3}}}));
    EXPECT_EQ(ids_of(events_of(values_query(twice, at(0), at(100), 10)), parameter), (id_map{{5, {4}}}));
    EXPECT_EQ(ids_of(messages->dl().list(downlink_query(twice, at(0), at(100))), timeout),
              (id_map{{5, {600}}}));
    EXPECT_EQ(ids_of(messages->dl().list_not_acked(downlink_query(twice, at(0), at(100))), timeout),
              (id_map{{5, {600}}}));
}

TEST_P(StoreSuite, LimitOfZeroOrBelowIsTheDefaultOf3000PerModem) {
    eav->records().save_values(series(8, 3001, at(0)));
    for (int limit : {0, -1, -2147483647 - 1}) {
        const id_map out = ids_of(values_of(values_query({8}, at(0), at(100000), limit)), number);
        ASSERT_EQ(total(out), 3000u) << "limit " << limit;
        EXPECT_EQ(out.at(8).front(), 1);  // the earliest ones
        EXPECT_EQ(out.at(8).back(), 3000);
    }
    // A limit above the default is honoured.
    EXPECT_EQ(total(ids_of(values_of(values_query({8}, at(0), at(100000), 3001)), number)), 3001u);
}

// Two modems of 150001 values each: 300002 in the range, 300000 at most in a result.
// Modems are served in ascending id order; the last one gets what is left.
TEST_P(StoreSuite, AResultHoldsAtMost300000RecordsInAll) {
    eav->records().save_values(series(12, 150001, at(0)));
    eav->records().save_values(series(11, 150001, at(0)));

    model::per_modem<model::dev_value> out =
        values_of(values_query({12, 11}, at(0), at(200000), model::max_history_limit));
    ASSERT_EQ(out.size(), 2u);
    EXPECT_EQ(out.at(11).size(), 150001u);
    EXPECT_EQ(out.at(12).size(), 149999u);
    EXPECT_EQ(out.at(12).back().value.toInt(), 149999);

    // Whatever the limit says.
    out = values_of(values_query({11, 12}, at(0), at(200000), 2147483647));
    EXPECT_EQ(out.at(11).size() + out.at(12).size(), 300000u);
}

// A value at second 30 and a half: a query from 30 to 30 finds it, 31 to 31 does not,
// 29 to 29 does not. The same for every kind of record.
TEST_P(StoreSuite, AWholeSecondBoundTakesInTheWholeSecond) {
    const QDateTime half_past = at(30).addMSecs(500);
    const QDateTime last_ms = at(40).addMSecs(999);

    model::ul_message u = uplink(9, 0, 1);
    u.timestamp = half_past;
    u.time_detected = last_ms;
    messages->ul().save(u);
    model::dev_value v = value(9, 0, "1.8.0", "energy", 2);
    v.timestamp = half_past;
    eav->records().save_values({v});
    model::dev_event e = event(9, 0, 7, 3);
    e.timestamp = half_past;
    eav->records().save_events({e});
    model::dl_message d = downlink(9, 0, 600);
    d.timestamp = half_past;
    messages->dl().save(d);

    EXPECT_EQ(ids_of(roll_of(roll_query({9}, at(30), at(30))), unique_id), (id_map{{9, {1}}}));
    EXPECT_EQ(ids_of(values_of(values_query({9}, at(30), at(30), 10)), number), (id_map{{9, {2}}}));
    EXPECT_EQ(ids_of(events_of(values_query({9}, at(30), at(30), 10)), parameter), (id_map{{9, {3}}}));
    EXPECT_EQ(ids_of(messages->dl().list(downlink_query({9}, at(30), at(30))), timeout),
              (id_map{{9, {600}}}));

    model::roll_query detected = roll_query({9}, at(40), at(40));
    detected.time_detected = true;
    EXPECT_EQ(ids_of(roll_of(detected), unique_id), (id_map{{9, {1}}}));

    for (int second : {29, 31}) {
        EXPECT_TRUE(roll_of(roll_query({9}, at(second), at(second))).empty()) << second;
        EXPECT_TRUE(values_of(values_query({9}, at(second), at(second), 10)).empty()) << second;
        EXPECT_TRUE(events_of(values_query({9}, at(second), at(second), 10)).empty()) << second;
        EXPECT_TRUE(messages->dl().list(downlink_query({9}, at(second), at(second))).empty()) << second;
    }
    detected.from = detected.to = at(41);
    EXPECT_TRUE(roll_of(detected).empty());
}
