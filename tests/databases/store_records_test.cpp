#include <QJsonDocument>
#include <QJsonObject>

#include "tests/databases/store_fixture.h"

namespace {

model::value_query query(QList<int> modems, QDateTime from, QDateTime to) {
    model::value_query q;
    q.modem_id = modems;
    q.from = from;
    q.to = to;
    return q;
}

qint64 number(const model::dev_value& v) {
    return qRound64(v.value.toDouble());
}
qint64 parameter(const model::dev_event& e) {
    return e.parameter;
}

}  // namespace

TEST_P(StoreSuite, ValuesByTimeTagObisAndLimit) {
    auto& store = eav->records();
    store.save_values({value(40, 30, "1.8.0", "energy", 3), value(40, 10, "1.8.0", "energy", 1),
                       value(40, 20, "2.8.0", "energy", 2), value(40, 40, "1.8.0", "power", 4),
                       value(40, 50, "2.8.0", "energy", 5), value(41, 10, "1.8.0", "energy", 6)});
    auto out = values_of(query({40}, at(0), at(100)));
    EXPECT_EQ(ids_of(out, number), (id_map{{40, {1, 2, 3, 4, 5}}}));

    out = values_of(query({40, 41}, at(10), at(40)));
    EXPECT_EQ(ids_of(out, number), (id_map{{40, {1, 2, 3, 4}}, {41, {6}}}));
    out = values_of(query({40, 41}, at(11), at(39)));
    EXPECT_EQ(ids_of(out, number), (id_map{{40, {2, 3}}}));

    auto q = query({40, 41}, at(0), at(100));
    q.tag = QStringList{"power"};
    out = values_of(q);
    EXPECT_EQ(ids_of(out, number), (id_map{{40, {4}}}));

    q.tag.clear();
    q.obis_codes = QStringList{"2.8.0"};
    out = values_of(q);
    EXPECT_EQ(ids_of(out, number), (id_map{{40, {2, 5}}}));

    q.obis_codes = QStringList{"2.8.0", "1.8.0"};
    q.tag = QStringList{"energy"};
    q.limit = 2;
    out = values_of(q);
    EXPECT_EQ(ids_of(out, number), (id_map{{40, {1, 2}}, {41, {6}}}));

    out = values_of(query({}, at(0), at(100)));
    EXPECT_TRUE(out.empty());
}

TEST_P(StoreSuite, ValuesFirstAndLastPerObisCode) {
    auto& store = eav->records();
    store.save_values({value(40, 10, "1.8.0", "energy", 1), value(40, 20, "2.8.0", "energy", 2),
                       value(40, 30, "1.8.0", "energy", 3), value(40, 40, "1.8.0", "power", 4),
                       value(40, 50, "2.8.0", "energy", 5), value(41, 10, "1.8.0", "energy", 6)});
    model::per_modem<model::dev_value> out;

    auto q = query({40, 41}, at(0), at(100));
    q.first_and_last = true;
    out = values_of(q);
    EXPECT_EQ(ids_of(out, number), (id_map{{40, {1, 2, 4, 5}}, {41, {6}}}));

    // Within the range 2.8.0 has a single record, given once.
    q = query({40}, at(20), at(40));
    q.first_and_last = true;
    out = values_of(q);
    EXPECT_EQ(ids_of(out, number), (id_map{{40, {2, 3, 4}}}));

    q.obis_codes = QStringList{"1.8.0"};
    out = values_of(q);
    EXPECT_EQ(ids_of(out, number), (id_map{{40, {3, 4}}}));
}

TEST_P(StoreSuite, ValuesKeepTheirFieldsAndExpire) {
    auto& store = eav->records();
    model::dev_value kept = value(42, 10, "1.8.0", "energy", 12.25);
    kept.ttl = hours_from_now(1);
    model::dev_value expired = value(42, 20, "1.8.0", "energy", 13);
    expired.ttl = hours_from_now(-1);
    store.save_values({kept, expired});

    auto out = values_of(query({42}, at(0), at(100)));
    ASSERT_EQ(out[42].size(), 1u);
    const model::dev_value& back = out[42].front();
    EXPECT_EQ(back.modem_id, 42);
    EXPECT_EQ(back.timestamp.toSecsSinceEpoch(), at(10).toSecsSinceEpoch());
    EXPECT_EQ(back.obis_code, "1.8.0");
    EXPECT_EQ(back.tag, "energy");
    EXPECT_DOUBLE_EQ(back.value.toDouble(), 12.25);
    EXPECT_EQ(back.message_id, "m10");

    EXPECT_EQ(eav->purge_expired(10), 1);
    EXPECT_EQ(eav->value_count(), 1);
}

// Events have no tag, so the tag list does not apply; OBIS codes match the event code
// in decimal, and first_and_last works per event code.
TEST_P(StoreSuite, EventsByTimeCodeLimitAndFirstAndLast) {
    auto& store = eav->records();
    model::dev_event described = event(50, 10, 7, 1);
    described.message = "door open";
    described.extended_data = QJsonDocument(QJsonObject{{"angle", 30}});
    store.save_events(
        {described, event(50, 20, 8, 2), event(50, 40, 7, 4), event(50, 30, 7, 3), event(51, 15, 7, 5)});
    model::dev_event expired = event(50, 35, 8, 9);
    expired.ttl = hours_from_now(-1);
    store.save_events({expired});
    auto out = events_of(query({50}, at(0), at(100)));
    EXPECT_EQ(ids_of(out, parameter), (id_map{{50, {1, 2, 3, 4}}}));
    ASSERT_FALSE(out[50].empty());
    const model::dev_event& back = out[50].front();
    EXPECT_EQ(back.event_code, 7);
    EXPECT_EQ(back.message, "door open");
    EXPECT_EQ(back.message_id, "m10");
    EXPECT_EQ(back.extended_data.object().value("angle").toInt(), 30);
    EXPECT_EQ(back.timestamp.toSecsSinceEpoch(), at(10).toSecsSinceEpoch());

    out = events_of(query({50, 51}, at(15), at(30)));
    EXPECT_EQ(ids_of(out, parameter), (id_map{{50, {2, 3}}, {51, {5}}}));

    auto q = query({50, 51}, at(0), at(100));
    q.obis_codes = QStringList{"7"};
    q.tag = QStringList{"no such tag"};
    out = events_of(q);
    EXPECT_EQ(ids_of(out, parameter), (id_map{{50, {1, 3, 4}}, {51, {5}}}));

    q.obis_codes.clear();
    q.limit = 2;
    out = events_of(q);
    EXPECT_EQ(ids_of(out, parameter), (id_map{{50, {1, 2}}, {51, {5}}}));

    q.limit = 3000;
    q.first_and_last = true;
    out = events_of(q);
    EXPECT_EQ(ids_of(out, parameter), (id_map{{50, {1, 2, 4}}, {51, {5}}}));

    EXPECT_EQ(eav->purge_expired(10), 1);
    EXPECT_EQ(eav->event_count(), 5);
}
