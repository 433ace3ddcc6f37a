#include <gtest/gtest.h>

#include <QJsonArray>
#include <QJsonObject>

#include "commands/GetEAV.h"
#include "commands/GetEAVEventsExtract.h"
#include "commands/GetEAVValuesExtract.h"
#include "commands/GetRoll.h"
#include "commands/GetRollExtract.h"
#include "commands/step_thinning.h"
#include "history_fakes.h"

using namespace history_fakes;

namespace {

const qint64 t0 = 1700000000;  // "from" of the thinning cases

QDateTime at(qint64 seconds) {
    return QDateTime::fromSecsSinceEpoch(seconds, Qt::UTC);
}

model::dev_value value(int modem_id, qint64 seconds, const QString& obis, const QString& tag = "t") {
    model::dev_value v;
    v.modem_id = modem_id;
    v.timestamp = at(seconds);
    v.obis_code = obis;
    v.tag = tag;
    v.value = double(seconds - t0);
    return v;
}

model::dev_event event(int modem_id, qint64 seconds, int code) {
    model::dev_event e;
    e.modem_id = modem_id;
    e.timestamp = at(seconds);
    e.event_code = code;
    return e;
}

model::ul_message roll(int modem_id, qint64 seconds, qint64 unique_id) {
    model::ul_message m;
    m.modem_id = modem_id;
    m.timestamp = at(seconds);
    m.unique_id = unique_id;
    m.hw_type = hw_type;
    return m;
}

// Seconds after t0 of the records of one modem in a reply.
std::vector<qint64> offsets(const QJsonObject& reply, int modem_id) {
    std::vector<qint64> result;
    for (const QJsonValue& record : reply.value(QString::number(modem_id)).toArray()) {
        result.push_back(qint64(record.toObject().value("timestamp").toDouble()) - t0);
    }
    return result;
}

QJsonObject get_values(fixture& f, const QJsonObject& body) {
    return GetEAV<model::dev_value>(f.context).execute(command(body));
}

}  // namespace

// --- query reading: defaults, caps and ownership -----------------------------------

TEST(HistoryQuery, LimitIsCappedAndZeroIsPassedThrough) {
    fixture f;
    f.own(1);
    get_values(f, {{"modem_id", QJsonArray{1}}, {"limit", 300001}});
    get_values(f, {{"modem_id", QJsonArray{1}}, {"limit", 0}});
    get_values(f, {{"modem_id", QJsonArray{1}}});
    ASSERT_EQ(f.eav->records_store.queries.size(), 3u);
    EXPECT_EQ(f.eav->records_store.queries[0].limit, 300000);
    EXPECT_EQ(f.eav->records_store.queries[1].limit, 0);
    EXPECT_EQ(f.eav->records_store.queries[2].limit, 3000);
}

TEST(HistoryQuery, RollQueryCarriesEveryMemberOfTheBody) {
    fixture f;
    f.own(5);
    GetRoll(f.context).execute(command({{"modem_id", QJsonArray{5}},
                                        {"from", 100},
                                        {"to", 200},
                                        {"tag", QJsonArray{"a", "b"}},
                                        {"limit", 10},
                                        {"time_detected", true},
                                        {"fill", "zero"}}));
    ASSERT_EQ(f.messages->uplinks.queries.size(), 1u);
    const model::roll_query& q = f.messages->uplinks.queries[0];
    EXPECT_EQ(q.modem_id, QList<int>{5});
    EXPECT_EQ(q.from, at(100));
    EXPECT_EQ(q.to, at(200));
    EXPECT_EQ(q.tag, QStringList({"a", "b"}));
    EXPECT_EQ(q.limit, 10);
    EXPECT_TRUE(q.time_detected);
    EXPECT_EQ(q.fill, "zero");
}

TEST(HistoryQuery, EmptyBodyQueriesFromTheEpochToNowForNoModem) {
    fixture f;
    const QJsonObject reply = GetRoll(f.context).execute(command({}));
    ASSERT_EQ(f.messages->uplinks.queries.size(), 1u);
    const model::roll_query& q = f.messages->uplinks.queries[0];
    EXPECT_TRUE(q.modem_id.isEmpty());
    EXPECT_EQ(q.from.toSecsSinceEpoch(), 0);
    EXPECT_LE(qAbs(q.to.secsTo(QDateTime::currentDateTimeUtc())), 5);
    EXPECT_EQ(q.limit, 3000);
    EXPECT_TRUE(reply.isEmpty());
}

TEST(HistoryQuery, ForeignModemHasNoKeyEvenWithStoredData) {
    fixture f;
    f.own(1);
    f.foreign(2);
    f.store_roll({roll(1, t0, 11)});
    f.store_roll({roll(2, t0, 22)});
    const QJsonObject reply = GetRoll(f.context).execute(command({{"modem_id", QJsonArray{1, 2}}}));
    EXPECT_EQ(f.messages->uplinks.queries.at(0).modem_id, QList<int>{1});
    EXPECT_EQ(reply.keys(), QStringList{"1"});
}

// --- replies -------------------------------------------------------------------------

TEST(HistoryReply, RollPerModemAsRecordJsonInStoreOrder) {
    fixture f;
    f.own(7);
    f.own(30);
    f.store_roll({roll(30, t0 + 5, 3)});
    f.store_roll({roll(7, t0 + 9, 1), roll(7, t0 + 1, 2)});
    const QJsonObject reply = GetRoll(f.context).execute(command({{"modem_id", QJsonArray{30, 7}}}));
    ASSERT_EQ(reply.keys(), QStringList({"30", "7"}));  // QJsonObject sorts keys as text
    const QJsonArray modem7 = reply.value("7").toArray();
    ASSERT_EQ(modem7.size(), 2);
    // the in-memory store returns each modem's messages in ascending time
    EXPECT_EQ(modem7[0].toObject(), model::to_json(roll(7, t0 + 1, 2)));
    EXPECT_EQ(modem7[1].toObject().value("unique_id").toDouble(), 1);
    EXPECT_EQ(reply.value("30").toArray().size(), 1);
}

TEST(HistoryReply, ExtractFormsAskTheDriverAndAreNotThinned) {
    fixture f;
    f.own(1);
    f.driver->m_extracted_roll[1] = {roll(1, t0, 1)};
    f.driver->m_extracted_values[1] = {value(1, t0, "a"), value(1, t0 + 1, "a")};
    f.driver->m_extracted_events[1] = {event(1, t0, 4)};
    const QJsonObject body{{"modem_id", QJsonArray{1}}, {"step", 60}, {"from", t0}};

    const QJsonObject rolls = GetRollExtract(f.context).execute(command(body));
    const QJsonObject values = GetEAVValuesExtract(f.context).execute(command(body));
    const QJsonObject events = GetEAVEventsExtract(f.context).execute(command(body));

    EXPECT_EQ(f.driver->m_roll_queries.size(), 1u);
    EXPECT_EQ(f.driver->m_value_queries.size(), 2u);
    EXPECT_EQ(f.driver->m_value_queries[0].step, 60);
    EXPECT_EQ(rolls.value("1").toArray().size(), 1);
    EXPECT_EQ(values.value("1").toArray().size(), 2);
    EXPECT_EQ(events.value("1").toArray().at(0).toObject(), model::to_json(event(1, t0, 4)));
    EXPECT_TRUE(f.messages->uplinks.queries.empty());
    EXPECT_TRUE(f.eav->records_store.queries.empty());
}

TEST(HistoryReply, EventsComeFromTheEventStore) {
    fixture f;
    f.own(3);
    f.store_events({event(3, t0, 9)});
    f.store_values({value(3, t0, "x")});
    const QJsonObject reply =
        GetEAV<model::dev_event>(f.context).execute(command({{"modem_id", QJsonArray{3}}}));
    ASSERT_EQ(reply.value("3").toArray().size(), 1);
    EXPECT_EQ(reply.value("3").toArray()[0].toObject().value("event_code").toInt(), 9);
}

TEST(HistoryReply, MaximalReplyHoldsEveryRecord) {
    fixture f;
    f.own(1);
    f.own(2);
    std::vector<model::dev_value> many;
    many.reserve(300000);
    for (int i = 0; i < 150000; ++i) {
        many.push_back(value(1, t0 + i, "a"));
        many.push_back(value(2, t0 + i, "a"));
    }
    f.store_values(many);
    const QJsonObject reply =
        get_values(f, {{"modem_id", QJsonArray{1, 2}}, {"limit", 300000}, {"from", t0}});
    EXPECT_EQ(reply.value("1").toArray().size(), 150000);
    EXPECT_EQ(reply.value("2").toArray().size(), 150000);
    EXPECT_EQ(reply.value("2").toArray().last().toObject().value("value").toDouble(), 149999);
}

// --- step thinning -------------------------------------------------------------------

TEST(StepThinning, KeepsTheFirstRecordOfEachInterval) {
    fixture f;
    f.own(1);
    f.store_values(
        {value(1, t0, "a"), value(1, t0 + 30, "a"), value(1, t0 + 61, "a"), value(1, t0 + 200, "a")});
    const QJsonObject reply = get_values(f, {{"modem_id", QJsonArray{1}}, {"from", t0}, {"step", 60}});
    EXPECT_EQ(offsets(reply, 1), (std::vector<qint64>{0, 61, 200}));
}

TEST(StepThinning, SeriesAreThinnedApart) {
    fixture f;
    f.own(1);
    f.store_values({value(1, t0, "a"), value(1, t0 + 10, "b"), value(1, t0 + 20, "a"), value(1, t0 + 30, "b"),
                    value(1, t0 + 70, "a")});
    const QJsonObject reply = get_values(f, {{"modem_id", QJsonArray{1}}, {"from", t0}, {"step", 60}});
    // a at 0 and 70, b at 10 (b at 30 falls into b's first interval)
    EXPECT_EQ(offsets(reply, 1), (std::vector<qint64>{0, 10, 70}));
}

TEST(StepThinning, ValueWithoutObisCodeIsKeyedByItsTag) {
    fixture f;
    f.own(1);
    f.store_values({value(1, t0, "", "temp"), value(1, t0 + 5, "", "volt"), value(1, t0 + 6, "", "temp")});
    const QJsonObject reply = get_values(f, {{"modem_id", QJsonArray{1}}, {"from", t0}, {"step", 60}});
    EXPECT_EQ(offsets(reply, 1), (std::vector<qint64>{0, 5}));
}

TEST(StepThinning, EventsAreKeyedByEventCode) {
    fixture f;
    f.own(1);
    f.store_events({event(1, t0, 1), event(1, t0 + 1, 2), event(1, t0 + 2, 1), event(1, t0 + 61, 1)});
    const QJsonObject reply = GetEAV<model::dev_event>(f.context).execute(
        command({{"modem_id", QJsonArray{1}}, {"from", t0}, {"step", 60}}));
    EXPECT_EQ(offsets(reply, 1), (std::vector<qint64>{0, 1, 61}));
}

TEST(StepThinning, NonPositiveStepSwitchesItOff) {
    for (int step : {0, -5}) {
        fixture f;
        f.own(1);
        f.store_values({value(1, t0, "a"), value(1, t0 + 30, "a"), value(1, t0 + 61, "a")});
        const QJsonObject reply = get_values(f, {{"modem_id", QJsonArray{1}}, {"from", t0}, {"step", step}});
        EXPECT_EQ(offsets(reply, 1), (std::vector<qint64>{0, 30, 61})) << step;
    }
}

TEST(StepThinning, FirstAndLastSwitchesItOff) {
    fixture f;
    f.own(1);
    f.store_values({value(1, t0, "a"), value(1, t0 + 10, "a"), value(1, t0 + 30, "a")});
    const QJsonObject reply =
        get_values(f, {{"modem_id", QJsonArray{1}}, {"from", t0}, {"step", 60}, {"first_and_last", true}});
    ASSERT_EQ(f.eav->records_store.queries.size(), 1u);
    EXPECT_TRUE(f.eav->records_store.queries[0].first_and_last);
    // The store keeps the first and the last of the series; thinning would drop +30.
    EXPECT_EQ(offsets(reply, 1), (std::vector<qint64>{0, 30}));
}

TEST(StepThinning, IsAppliedPerModem) {
    fixture f;
    f.own(1);
    f.own(2);
    f.store_values({value(1, t0, "a"), value(1, t0 + 30, "a"), value(1, t0 + 61, "a")});
    f.store_values({value(2, t0 + 30, "a")});
    const QJsonObject reply = get_values(f, {{"modem_id", QJsonArray{1, 2}}, {"from", t0}, {"step", 60}});
    EXPECT_EQ(offsets(reply, 1), (std::vector<qint64>{0, 61}));
    EXPECT_EQ(offsets(reply, 2), (std::vector<qint64>{30}));
}

TEST(StepThinning, RecordsOutOfTimeOrderAreOrderedFirst) {
    std::vector<model::dev_value> records = {value(1, t0 + 61, "a"), value(1, t0 + 30, "a"),
                                             value(1, t0 + 5, "b"), value(1, t0, "a")};
    step_thinning::thin_modem(records, at(t0), 60);
    ASSERT_EQ(records.size(), 3u);
    EXPECT_EQ(records[0].timestamp, at(t0));
    EXPECT_EQ(records[1].obis_code, "b");
    EXPECT_EQ(records[2].timestamp, at(t0 + 61));
}

TEST(StepThinning, GridJumpsWholeStepsPastLongGaps) {
    step_thinning::series_grid grid(at(0), 60);
    EXPECT_TRUE(grid.admit("a", at(1000000)));  // next grid time 1000020
    EXPECT_FALSE(grid.admit("a", at(1000019)));
    EXPECT_TRUE(grid.admit("a", at(1000020)));  // exactly on the grid
    EXPECT_FALSE(grid.admit("b", at(-1)));      // before the query's start
    EXPECT_TRUE(grid.admit("b", at(59)));
    EXPECT_FALSE(grid.admit("b", at(59)));
}
