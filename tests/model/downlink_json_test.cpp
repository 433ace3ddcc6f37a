#include <gtest/gtest.h>

#include <QStringList>

#include "model/json.h"

namespace {

QStringList sorted_keys(const QJsonObject& o) {
    QStringList keys = o.keys();
    keys.sort();
    return keys;
}

}  // namespace

TEST(DlMessageJson, WriterUsesStatusNameAndTheStoredKeys) {
    model::dl_message m;
    m.f_ack = 0;
    m.f_system = 1;
    m.station_id = 88;
    m.frequency = 2;
    m.dl_phy = 5;
    m.modem_id = 17;
    m.timeout = 600;
    m.ttl = QDateTime::fromSecsSinceEpoch(1700003600, Qt::UTC);
    m.timestamp = QDateTime::fromSecsSinceEpoch(1700000000, Qt::UTC);
    m.db_id = "db-7";
    m.api_key = "k-1";
    m.user_id = "operator";
    m.dl_status = model::EXECUTED;
    m.data = QJsonObject{{"cmd", "open_valve"}};
    m.payload = QByteArray("\x0a\xBC", 2);
    m.protocol = "mbus";

    const QJsonObject o = model::to_json(m);
    QStringList expected = {"frequency", "dl_phy",    "station_id", "f_system",  "data",
                            "db_id",     "f_ack",     "modem_id",   "api_key",   "user_id",
                            "payload",   "dl_status", "timeout",    "timestamp", "ttl"};
    expected.sort();
    EXPECT_EQ(sorted_keys(o), expected);
    EXPECT_FALSE(o.contains("status"));
    EXPECT_FALSE(o.contains("protocol"));

    EXPECT_EQ(o["dl_status"], QJsonValue("EXECUTED"));
    EXPECT_EQ(o["payload"].toString(), "0abc");
    EXPECT_EQ(o["timestamp"].toDouble(), 1700000000.0);
    EXPECT_EQ(o["ttl"].toDouble(), 1700003600.0);
    EXPECT_EQ(o["db_id"].toString(), "db-7");
    EXPECT_EQ(o["f_ack"].toInt(-1), 0);
    EXPECT_EQ(o["dl_phy"].toInt(), 5);
    EXPECT_EQ(o["data"].toObject(), (QJsonObject{{"cmd", "open_valve"}}));
}

TEST(DlMessageJson, StatusNamesByNumber) {
    EXPECT_EQ(model::dl_status_name(0), "PENDING");
    EXPECT_EQ(model::dl_status_name(1), "WAIT_DATA");
    EXPECT_EQ(model::dl_status_name(2), "EXECUTED");
    EXPECT_EQ(model::dl_status_name(3), "TIMEOUT");
    // Never stored; must not read past the table.
    EXPECT_EQ(model::dl_status_name(4), "");
    EXPECT_EQ(model::dl_status_name(-1), "");
}

TEST(DlMessageJson, RequestAndStoredFormsAreNotMirrorImages) {
    model::dl_message request = model::dl_message_from_request({{"status", 3}, {"dl_phy", 7}, {"f_ack", 0}});
    EXPECT_EQ(request.dl_status, model::TIMEOUT);

    const QJsonObject stored = model::to_json(request);
    EXPECT_EQ(stored["dl_status"], QJsonValue("TIMEOUT"));

    // Read back as a request the name under "dl_status" is not seen: status falls to 0.
    request.db_id = "db-1";
    const model::dl_message again = model::dl_message_from_request(model::to_json(request));
    EXPECT_EQ(again.dl_status, model::PENDING);
    EXPECT_EQ(again.db_id, "");
    EXPECT_EQ(again.dl_phy, 7);
    EXPECT_EQ(again.f_ack, 0);
}

// Only 0..3 may be stored: any other number reads as the default, like a mistyped one.
TEST(DlMessageJson, RequestStatusOutsideTheEnumerationReadsAsPending) {
    for (int status : {4, 7, -1, 2147483647}) {
        EXPECT_EQ(model::dl_message_from_request({{"status", status}}).dl_status, model::PENDING) << status;
    }
    EXPECT_EQ(model::dl_message_from_request({{"status", 0}}).dl_status, model::PENDING);
    EXPECT_EQ(model::dl_message_from_request({{"status", 2}}).dl_status, model::EXECUTED);
    EXPECT_EQ(model::dl_message_from_request({{"status", 3.5}}).dl_status, model::PENDING);
}

TEST(DlMessageJson, RequestPayloadSkipsNonHexCharacters) {
    EXPECT_EQ(model::dl_message_from_request({{"payload", "0A0b xy"}}).payload, QByteArray("\x0a\x0b", 2));
    EXPECT_EQ(model::dl_message_from_request({{"payload", "ff-00-7E"}}).payload,
              QByteArray("\xff\x00\x7e", 3));
    EXPECT_TRUE(model::dl_message_from_request({{"payload", 12}}).payload.isEmpty());
}
