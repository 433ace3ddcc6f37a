#include <gtest/gtest.h>

#include <QJsonArray>
#include <QStringList>

#include "model/json.h"

namespace {

QStringList sorted_keys(const QJsonObject& o) {
    QStringList keys = o.keys();
    keys.sort();
    return keys;
}

QStringList sorted(QStringList keys) {
    keys.sort();
    return keys;
}

model::ul_message sample_ul_message() {
    model::ul_message m;
    m.modem_id = 555;
    m.station_id = 15;
    m.ttl = QDateTime::fromSecsSinceEpoch(1700086400, Qt::UTC);
    m.timestamp = QDateTime::fromSecsSinceEpoch(1700000000, Qt::UTC);
    m.time_detected = QDateTime::fromSecsSinceEpoch(1699999990, Qt::UTC);
    m.bs_timezone_offset = -60;
    m.phy = "UL_PHY_C";
    m.snr = 9;
    m.rssi = -110;
    m.tag = "daily";
    m.unique_id = 123;
    m.data = QJsonDocument(QJsonObject{{"volume", 12.5}});
    m.parse_status = "ok";
    m.hw_type = "abc";
    m.protocol = "mbus";
    m.payload = QByteArray::fromRawData("\x00\xab\xff", 3);
    m.tz_mismatch = true;
    m.dl_phy = "DL_PHY_A";
    m.last_dl_bs_aver_busyness = 0.5;
    m.last_dl_bs_busyness = 0.25;
    m.iterator = 8;
    return m;
}

}  // namespace

TEST(UlMessageJson, WriterEmitsExactlyTheStoredKeys) {
    const QJsonObject o = model::to_json(sample_ul_message());

    EXPECT_EQ(sorted_keys(o),
              sorted({"unique_id", "ttl", "timestamp", "time_detected", "bs_timezone_offset", "tag",
                      "station_id", "snr", "rssi", "protocol", "phy", "parse_status", "modem_id", "hw_type",
                      "extended_data", "data", "payload", "tz_mismatch"}));
    EXPECT_EQ(o["ttl"].toDouble(), 1700086400.0);
    EXPECT_EQ(o["timestamp"].toDouble(), 1700000000.0);
    EXPECT_EQ(o["time_detected"].toDouble(), 1699999990.0);
    EXPECT_EQ(o["bs_timezone_offset"].toInt(), -60);
    EXPECT_EQ(o["hw_type"].toString(), "abc");
    EXPECT_EQ(o["payload"].toString(), "00abff");
    EXPECT_EQ(o["data"].toObject(), (QJsonObject{{"volume", 12.5}}));
    EXPECT_TRUE(o["extended_data"].isNull()) << "an empty document is written as null";
    EXPECT_TRUE(o["tz_mismatch"].isBool());
    EXPECT_TRUE(o["tz_mismatch"].toBool());
}

TEST(UlMessageJson, UniqueIdIsWrittenWith64BitsButReadWith32) {
    model::ul_message m = sample_ul_message();
    m.unique_id = int64_t{1} << 33;
    const QJsonObject written = model::to_json(m);
    EXPECT_EQ(written["unique_id"].toDouble(), 8589934592.0);
    EXPECT_NE(model::ul_message_from_json(written).unique_id, m.unique_id);

    m.unique_id = -2147483648LL;
    EXPECT_EQ(model::ul_message_from_json(model::to_json(m)).unique_id, -2147483648LL);
}

TEST(UlMessageJson, RoundTripLosesHwTypeAndMemoryOnlyFields) {
    const model::ul_message original = sample_ul_message();
    const model::ul_message back = model::ul_message_from_json(model::to_json(original));

    EXPECT_EQ(back.hw_type, QString(QChar(0)));
    EXPECT_EQ(back.hw_type.size(), 1);
    EXPECT_EQ(back.unique_id, 123);
    EXPECT_EQ(back.timestamp, original.timestamp);  // the same instant, now in local time
    EXPECT_EQ(back.timestamp.timeSpec(), Qt::LocalTime);
    EXPECT_EQ(back.data, original.data);
    EXPECT_EQ(back.payload, QByteArray("\x00\xab\xff", 3));
    EXPECT_EQ(back.dl_phy, "");
    EXPECT_EQ(back.iterator, 0);
    EXPECT_EQ(back.last_dl_bs_busyness, 0.0);
}

TEST(EavJson, ValueWriterKeysAndScalarTypes) {
    model::dev_value v;
    v.modem_id = 31;
    v.timestamp = QDateTime::fromSecsSinceEpoch(1600000000, Qt::UTC);
    v.obis_code = "1.8.0";
    v.tag = "hourly";
    v.value = 12.5;
    v.message_id = "m-1";
    v.ttl = QDateTime::fromSecsSinceEpoch(1600086400, Qt::UTC);

    QJsonObject o = model::to_json(v);
    EXPECT_EQ(sorted_keys(o),
              sorted({"value", "ttl", "timestamp", "tag", "obis_code", "modem_id", "message_id"}));
    EXPECT_EQ(o["value"], QJsonValue(12.5));
    EXPECT_EQ(o["timestamp"].toDouble(), 1600000000.0);
    EXPECT_EQ(o["ttl"].toDouble(), 1600086400.0);
    EXPECT_EQ(o["obis_code"].toString(), "1.8.0");
    EXPECT_EQ(o["modem_id"].toInt(), 31);

    v.value = QString("open");
    EXPECT_EQ(model::to_json(v)["value"], QJsonValue("open"));
    v.value = true;
    EXPECT_EQ(model::to_json(v)["value"], QJsonValue(true));
    v.value = QVariant();
    EXPECT_TRUE(model::to_json(v)["value"].isNull());
}

TEST(EavJson, EventWriterKeysAndExtendedData) {
    model::dev_event e;
    e.modem_id = 31;
    e.timestamp = QDateTime::fromSecsSinceEpoch(1600000000, Qt::UTC);
    e.event_code = 17;
    e.message_id = "m-2";
    e.message = "Magnet detected";
    e.parameter = -4;

    QJsonObject o = model::to_json(e);
    EXPECT_EQ(sorted_keys(o), sorted({"event_code", "extended_data", "message", "message_id", "modem_id",
                                      "parameter", "timestamp", "ttl"}));
    EXPECT_EQ(o["event_code"].toInt(), 17);
    EXPECT_EQ(o["parameter"].toInt(), -4);
    EXPECT_EQ(o["message"].toString(), "Magnet detected");
    EXPECT_TRUE(o["extended_data"].isNull());

    e.extended_data = QJsonDocument(QJsonObject{{"count", 2}, {"list", QJsonArray{1, "a"}}});
    o = model::to_json(e);
    EXPECT_EQ(o["extended_data"].toObject(), (QJsonObject{{"count", 2}, {"list", QJsonArray{1, "a"}}}));
}

// Seconds whose milliseconds no 64-bit number holds (and numbers past 64 bits) read as a
// missing member does, as 0; a far but representable time stays as it is.
TEST(UlMessageJson, SecondsOutsideTheTimeRangeReadAsZero) {
    const model::ul_message m =
        model::ul_message_from_json({{"ttl", 1e17}, {"timestamp", -1e300}, {"time_detected", 4102444800.0}});
    EXPECT_EQ(m.ttl.toSecsSinceEpoch(), 0);
    EXPECT_EQ(m.timestamp.toSecsSinceEpoch(), 0);
    EXPECT_EQ(m.time_detected.toSecsSinceEpoch(), 4102444800);  // 2100-01-01T00:00:00Z
}
