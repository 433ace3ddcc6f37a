#include <QJsonDocument>
#include <QJsonObject>

#include "tests/databases/store_fixture.h"

namespace {

model::roll_query roll(QList<int> modems, QDateTime from, QDateTime to) {
    model::roll_query query;
    query.modem_id = modems;
    query.from = from;
    query.to = to;
    return query;
}

model::dl_query dl_query(QList<int> modems, QDateTime from, QDateTime to, int limit = 3000) {
    model::dl_query query;
    query.modem_id = modems;
    query.from = from;
    query.to = to;
    query.limit = limit;
    return query;
}

qint64 unique_id(const model::ul_message& m) {
    return m.unique_id;
}
qint64 timeout(const model::dl_message& m) {
    return m.timeout;
}

}  // namespace

TEST_P(StoreSuite, RollSelectsByModemInclusiveTimeRangeAndTag) {
    auto& ul = messages->ul();
    // Saved out of time order on purpose.
    ul.save(uplink(10, 30, 3, "a"));
    ul.save(uplink(10, 10, 1, "a"));
    ul.save(uplink(10, 20, 2, "b"));
    ul.save(uplink(10, 40, 4, "c"));
    ul.save(uplink(11, 20, 5, "a"));
    ul.save(uplink(12, 25, 6, "a"));

    auto out = roll_of(roll({10, 11}, at(20), at(30)));
    EXPECT_EQ(ids_of(out, unique_id), (id_map{{10, {2, 3}}, {11, {5}}}));

    out = roll_of(roll({10, 11}, at(21), at(29)));
    EXPECT_TRUE(out.empty());

    auto tagged = roll({10, 11, 12}, at(0), at(100));
    tagged.tag = QStringList{"a"};
    out = roll_of(tagged);
    EXPECT_EQ(ids_of(out, unique_id), (id_map{{10, {1, 3}}, {11, {5}}, {12, {6}}}));
    tagged.tag = QStringList{"a", "c"};
    tagged.modem_id = {10};
    out = roll_of(tagged);
    EXPECT_EQ(ids_of(out, unique_id), (id_map{{10, {1, 3, 4}}}));

    out = roll_of(roll({}, at(0), at(100)));
    EXPECT_TRUE(out.empty());
}

TEST_P(StoreSuite, RollLimitIsPerModemAndTimeDetectedChoosesTheRangeField) {
    auto& ul = messages->ul();
    for (int i = 1; i <= 5; ++i) {
        model::ul_message message = uplink(20, i, i);
        message.time_detected = at(106 - i);  // detected in the reverse order
        ul.save(message);
    }
    ul.save(uplink(21, 3, 30));

    model::per_modem<model::ul_message> out;
    auto query = roll({20, 21}, at(0), at(100));
    query.limit = 2;
    out = roll_of(query);
    EXPECT_EQ(ids_of(out, unique_id), (id_map{{20, {1, 2}}, {21, {30}}}));
    query.limit = 0;
    out = roll_of(query);
    EXPECT_EQ(ids_of(out, unique_id), (id_map{{20, {1, 2, 3, 4, 5}}, {21, {30}}}));

    // "fill" "last": the newest records of the range, still in ascending time.
    query.fill = model::fill_latest;
    query.limit = 2;
    out = roll_of(query);
    EXPECT_EQ(ids_of(out, unique_id), (id_map{{20, {4, 5}}, {21, {30}}}));
    query.limit = 1;
    query.to = at(3);
    out = roll_of(query);
    EXPECT_EQ(ids_of(out, unique_id), (id_map{{20, {3}}, {21, {30}}}));  // 21's only uplink is at 3
    query.fill.clear();
    query.to = at(100);

    // time_detected of uplinks 5, 4, 3: 101, 102, 103; ordered by that time.
    query = roll({20}, at(101), at(103));
    query.time_detected = true;
    out = roll_of(query);
    EXPECT_EQ(ids_of(out, unique_id), (id_map{{20, {5, 4, 3}}}));
    query.time_detected = false;
    out = roll_of(query);
    EXPECT_TRUE(out.empty());
}

TEST_P(StoreSuite, RollKeepsTheMessageAndSkipsExpiredOnes) {
    auto& ul = messages->ul();
    model::ul_message full = uplink(30, 10, 7, "full");
    full.station_id = 12;
    full.snr = -3;
    full.rssi = -110;
    full.payload = QByteArray::fromHex("0a0b0c");
    full.data = QJsonDocument(QJsonObject{{"energy", 1.5}});
    full.ttl = hours_from_now(1);
    ul.save(full);
    model::ul_message expired = uplink(30, 11, 8);
    expired.ttl = hours_from_now(-1);
    ul.save(expired);
    model::ul_message gone = uplink(31, 11, 9);
    gone.ttl = hours_from_now(-1);
    ul.save(gone);

    auto out = roll_of(roll({30, 31}, at(0), at(100)));
    ASSERT_EQ(ids_of(out, unique_id), (id_map{{30, {7}}}));
    const model::ul_message& back = out[30].front();
    EXPECT_EQ(back.modem_id, 30);
    EXPECT_EQ(back.timestamp.toSecsSinceEpoch(), at(10).toSecsSinceEpoch());
    EXPECT_EQ(back.tag, "full");
    EXPECT_EQ(back.station_id, 12);
    EXPECT_EQ(back.snr, -3);
    EXPECT_EQ(back.rssi, -110);
    EXPECT_EQ(back.payload, QByteArray::fromHex("0a0b0c"));
    EXPECT_EQ(back.data.object().value("energy").toDouble(), 1.5);
    EXPECT_EQ(back.protocol, "proto7");
    EXPECT_EQ(back.hw_type, "X");

    EXPECT_EQ(ul.modems(), QList<int>{30});

    EXPECT_EQ(messages->purge_expired(1), 1);
    EXPECT_EQ(messages->purge_expired(10), 1);
    EXPECT_EQ(messages->purge_expired(10), 0);
    EXPECT_EQ(messages->uplink_count(), 1);
}

// The data's text written by the driver is what is stored; non-ASCII text keeps its form.
TEST_P(StoreSuite, DataGivenWithItsTextReadsBackAsTheSameDocument) {
    model::ul_message m = uplink(32, 10, 11);
    const QString name = QString::fromUtf8("Z\xc3\xa4hler \xe2\x9c\x93 \xf0\x9d\x84\x9e");
    m.data = QJsonDocument(QJsonObject{{"n", 2}, {"name", name}});
    m.data_text = "{\"n\":2,\"name\":\"Z\xc3\xa4hler \xe2\x9c\x93 \xf0\x9d\x84\x9e\"}";
    m.ttl = hours_from_now(1);
    messages->ul().save(m);
    auto out = roll_of(roll({32}, at(0), at(100)));
    ASSERT_EQ(out[32].size(), 1u);
    EXPECT_EQ(out[32].front().data.object(), (QJsonObject{{"n", 2}, {"name", name}}));
}

TEST_P(StoreSuite, DeviceOfTheLastStoredUplink) {
    auto& ul = messages->ul();
    model::ul_message first = uplink(40, 10, 1);
    first.protocol = "p1";
    first.hw_type = "h1";
    ul.save(first);
    model::ul_message second = uplink(40, 5, 2);  // earlier time, stored later
    second.protocol = "p2";
    second.hw_type = "h2";
    ul.save(second);

    std::pair<QString, QString> device;
    ul.device(device, 40);
    EXPECT_EQ(device, (std::pair<QString, QString>{"p2", "h2"}));
    ul.device(device, 41);
    EXPECT_EQ(device, (std::pair<QString, QString>{}));
}

TEST_P(StoreSuite, DownlinksGetFreshIdsAndUnknownIdsThrowText) {
    auto& dl = messages->dl();
    model::dl_message first = downlink(50, 10, 600);
    first.payload = QByteArray::fromHex("c0ffee");
    first.data = QJsonObject{{"cmd", "open"}};
    first.api_key = "key";
    first.user_id = "user";
    first.dl_phy = 7;
    first.f_ack = 0;
    dl.save(first);
    model::dl_message second = downlink(50, 20, 700);
    dl.save(second);
    EXPECT_FALSE(first.db_id.isEmpty());
    EXPECT_FALSE(second.db_id.isEmpty());
    EXPECT_NE(first.db_id, second.db_id);

    const model::dl_message back = dl.get(first.db_id);
    EXPECT_EQ(back.db_id, first.db_id);
    EXPECT_EQ(back.modem_id, 50);
    EXPECT_EQ(back.timeout, 600);
    EXPECT_EQ(back.payload, QByteArray::fromHex("c0ffee"));
    EXPECT_EQ(back.data, (QJsonObject{{"cmd", "open"}}));
    EXPECT_EQ(back.api_key, "key");
    EXPECT_EQ(back.user_id, "user");
    EXPECT_EQ(back.dl_phy, 7);
    EXPECT_EQ(back.f_ack, 0);
    EXPECT_EQ(back.dl_status, model::PENDING);
    EXPECT_EQ(back.timestamp.toSecsSinceEpoch(), at(10).toSecsSinceEpoch());

    try {
        dl.get("no-such-id");
        ADD_FAILURE() << "no exception";
    } catch (const QString& text) {
        EXPECT_TRUE(text.contains("no-such-id")) << text.toStdString();
    }
    EXPECT_THROW(dl.set_status("no-such-id", model::EXECUTED), QString);

    dl.set_status(second.db_id, model::WAIT_DATA);
    EXPECT_EQ(dl.get(second.db_id).dl_status, model::WAIT_DATA);
    EXPECT_EQ(dl.get(first.db_id).dl_status, model::PENDING);

    model::dl_message expired = downlink(50, 30, 800);
    expired.ttl = hours_from_now(-1);
    dl.save(expired);
    EXPECT_THROW(dl.get(expired.db_id), QString);
    EXPECT_EQ(ids_of(dl.list(dl_query({50}, at(0), at(100))), timeout), (id_map{{50, {600, 700}}}));
}

TEST_P(StoreSuite, DownlinkListingsByModemTimeLimitAndAcknowledgement) {
    auto& dl = messages->dl();
    std::vector<model::dl_message> saved;
    for (const auto& [modem, seconds, id] : std::vector<std::tuple<int, int, int>>{
             {60, 30, 3}, {60, 10, 1}, {60, 20, 2}, {60, 40, 4}, {61, 20, 5}, {62, 20, 6}}) {
        model::dl_message message = downlink(modem, seconds, id);
        dl.save(message);
        saved.push_back(message);
    }

    EXPECT_EQ(ids_of(dl.list(dl_query({60, 61}, at(20), at(30))), timeout),
              (id_map{{60, {2, 3}}, {61, {5}}}));
    EXPECT_EQ(ids_of(dl.list(dl_query({60}, at(0), at(100), 3)), timeout), (id_map{{60, {1, 2, 3}}}));
    EXPECT_TRUE(dl.list(dl_query({}, at(0), at(100))).empty());

    // Acknowledged: EXECUTED and TIMEOUT; WAIT_DATA is still waiting.
    dl.set_status(saved[1].db_id, model::EXECUTED);   // id 1
    dl.set_status(saved[2].db_id, model::WAIT_DATA);  // id 2
    dl.set_status(saved[3].db_id, model::TIMEOUT);    // id 4
    EXPECT_EQ(ids_of(dl.list_not_acked(dl_query({60, 61}, at(0), at(100))), timeout),
              (id_map{{60, {2, 3}}, {61, {5}}}));
    EXPECT_EQ(ids_of(dl.list_not_acked(dl_query({60}, at(0), at(100), 1)), timeout), (id_map{{60, {2}}}));
    EXPECT_EQ(ids_of(dl.list(dl_query({60}, at(0), at(100))), timeout), (id_map{{60, {1, 2, 3, 4}}}));
}
