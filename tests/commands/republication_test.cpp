#include <gtest/gtest.h>

#include <QJsonArray>
#include <QJsonObject>

#include "commands/RequestEAV.h"
#include "commands/RequestRoll.h"
#include "history_fakes.h"

using namespace history_fakes;

namespace {

model::dev_value value(int modem_id, qint64 seconds, const QString& obis) {
    model::dev_value v;
    v.modem_id = modem_id;
    v.timestamp = QDateTime::fromSecsSinceEpoch(seconds, Qt::UTC);
    v.obis_code = obis;
    return v;
}

model::dev_event event(int modem_id, int code) {
    model::dev_event e;
    e.modem_id = modem_id;
    e.timestamp = QDateTime::fromSecsSinceEpoch(code, Qt::UTC);
    e.event_code = code;
    return e;
}

model::ul_message roll(int modem_id, qint64 unique_id) {
    model::ul_message m;
    m.modem_id = modem_id;
    m.timestamp = QDateTime::fromSecsSinceEpoch(unique_id, Qt::UTC);
    m.unique_id = unique_id;
    return m;
}

QString obis_of(const publication& p) {
    return std::get<model::dev_value>(*p.record).obis_code;
}

}  // namespace

TEST(RequestEAV, TwoClientsAndThreeRecordsGiveSixPublications) {
    fixture f;
    f.own(77, {"c1", "c2"});
    f.store_values({value(77, 10, "a"), value(77, 20, "b"), value(77, 30, "c")});

    const QJsonObject reply =
        RequestEAV<model::dev_value>(f.context).execute(command({{"modem_id", QJsonArray{77}}}));

    EXPECT_EQ(reply, (QJsonObject{{"77", "ok"}}));
    const auto& p = f.engine.publications;
    ASSERT_EQ(p.size(), 6u);
    // Record by record in the store's order, each to every client in list order.
    const std::vector<std::pair<QString, QString>> expected = {{"a", "c1"}, {"a", "c2"}, {"b", "c1"},
                                                               {"b", "c2"}, {"c", "c1"}, {"c", "c2"}};
    for (size_t i = 0; i < p.size(); ++i) {
        EXPECT_EQ(obis_of(p[i]), expected[i].first) << i;
        EXPECT_EQ(p[i].client, expected[i].second) << i;
        EXPECT_EQ(p[i].index, p[i].client == "c1" ? 0 : 1) << i;
        EXPECT_TRUE(p[i].wrap) << i;
        EXPECT_EQ(p[i].stored_hw_type, hw_type) << i;
        EXPECT_EQ(p[i].stored_modem_id, 77) << i;
    }
}

TEST(RequestEAV, ModemWithoutClientsPublishesToNull) {
    fixture f;
    f.own(5);
    f.store_events({event(5, 1), event(5, 2), event(5, 3)});

    RequestEAV<model::dev_event>(f.context).execute(command({{"modem_id", QJsonArray{5}}}));

    ASSERT_EQ(f.engine.publications.size(), 3u);
    for (const publication& p : f.engine.publications) {
        EXPECT_EQ(p.client, "null");
        EXPECT_EQ(p.index, 0);
        ASSERT_TRUE(p.record && std::holds_alternative<model::dev_event>(*p.record));
    }
    EXPECT_EQ(std::get<model::dev_event>(*f.engine.publications[2].record).event_code, 3);
    EXPECT_EQ(f.eav->records_store.queries.size(), 1u);
}

TEST(RequestEAV, EmptyModemListGivesEmptyReplyAndNoStoreCall) {
    fixture f;
    f.foreign(9);
    for (const QJsonObject& body :
         {QJsonObject{{"modem_id", QJsonArray{}}}, QJsonObject{}, QJsonObject{{"modem_id", QJsonArray{9}}}}) {
        EXPECT_TRUE(RequestEAV<model::dev_value>(f.context).execute(command(body)).isEmpty());
        EXPECT_TRUE(RequestEAV<model::dev_event>(f.context).execute(command(body)).isEmpty());
        EXPECT_TRUE(RequestRoll(f.context).execute(command(body)).isEmpty());
    }
    EXPECT_TRUE(f.eav->records_store.queries.empty());
    EXPECT_TRUE(f.messages->uplinks.queries.empty());
    EXPECT_TRUE(f.engine.publications.empty());
}

TEST(RequestEAV, EveryOwnedModemIsAnsweredOkEvenWithoutData) {
    fixture f;
    f.own(1);
    f.own(2, {"only"});
    f.foreign(3);
    f.store_values({value(2, 1, "x")});
    const QJsonObject reply =
        RequestEAV<model::dev_value>(f.context).execute(command({{"modem_id", QJsonArray{3, 2, 1}}}));
    EXPECT_EQ(reply, (QJsonObject{{"1", "ok"}, {"2", "ok"}}));
    ASSERT_EQ(f.eav->records_store.queries.size(), 1u);
    EXPECT_EQ(f.eav->records_store.queries[0].modem_id, (QList<int>{2, 1}));
    ASSERT_EQ(f.engine.publications.size(), 1u);
    EXPECT_EQ(f.engine.publications[0].client, "only");
}

TEST(RequestRoll, PublishesEachStoredMessageToEachClient) {
    fixture f;
    f.own(8, {"a", "b", "c"});
    f.own(9);
    f.store_roll({roll(8, 100), roll(8, 200)});
    f.store_roll({roll(9, 300)});

    const QJsonObject reply = RequestRoll(f.context).execute(command({{"modem_id", QJsonArray{9, 8}}}));

    EXPECT_EQ(reply, (QJsonObject{{"8", "ok"}, {"9", "ok"}}));
    const auto& p = f.engine.publications;
    ASSERT_EQ(p.size(), 7u);  // 2 messages x 3 clients + 1 message x "null"
    EXPECT_EQ(p[0].roll->unique_id, 100);
    EXPECT_EQ(p[2].client, "c");
    EXPECT_EQ(p[2].index, 2);
    EXPECT_EQ(p[3].roll->unique_id, 200);
    EXPECT_EQ(p[6].roll->unique_id, 300);
    EXPECT_EQ(p[6].client, "null");
    for (const publication& one : p) {
        EXPECT_FALSE(one.record.has_value());
        EXPECT_TRUE(one.wrap);
    }
}

TEST(RequestRoll, AModemListedTwiceIsQueriedPublishedAndAnsweredOnce) {
    fixture f;
    f.own(8, {"a"});
    f.own(9);
    f.store_roll({roll(8, 100)});
    const QJsonObject reply = RequestRoll(f.context).execute(command({{"modem_id", QJsonArray{8, 9, 8, 8}}}));
    EXPECT_EQ(reply, (QJsonObject{{"8", "ok"}, {"9", "ok"}}));
    ASSERT_EQ(f.messages->uplinks.queries.size(), 1u);
    EXPECT_EQ(f.messages->uplinks.queries[0].modem_id, (QList<int>{8, 9}));
    EXPECT_EQ(f.engine.publications.size(), 1u);
}
