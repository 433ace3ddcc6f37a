#include <gtest/gtest.h>

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include "databases/common/device_seed.h"
#include "databases/common/state_value.h"

namespace {

QJsonObject parse(const char* text) {
    return QJsonDocument::fromJson(text).object();
}

}  // namespace

TEST(DeviceSeed, ReadsValidEntriesAndSkipsBadOnes) {
    const auto devices = db_common::device_seed(parse(R"({"devices": {
        "77": {"protocol": "proto7", "hw_type": "X", "clients": ["c1", 5, "c2"]},
        "-3": {"hw_type": "Y"},
        "abc": {"protocol": "p"},
        "12x": {"protocol": "p"},
        "9": "not an object"
    }})"));
    ASSERT_EQ(devices.size(), 2u);
    EXPECT_EQ(devices.at(77), (model::device_record{"proto7", "X", {"c1", "c2"}}));
    EXPECT_EQ(devices.at(-3), (model::device_record{"", "Y", {}}));
}

TEST(DeviceSeed, ReadsAMetersKeyAndAddress) {
    const auto devices = db_common::device_seed(parse(R"({"devices": {
        "79": {"protocol": "proto7", "hw_type": "wmbus", "aes_key": "000102030405060708090A0B0C0D0E0F",
               "manufacturer": "amb", "identification": "12345678", "version": 0, "medium": 3}
    }})"));
    const model::meter_link& meter = devices.at(79).meter;
    EXPECT_EQ(meter.aes_key, QByteArray::fromHex("000102030405060708090a0b0c0d0e0f"));
    EXPECT_EQ(meter.manufacturer, "AMB");
    EXPECT_EQ(meter.identification, "12345678");
    EXPECT_EQ(meter.version, 0);
    EXPECT_EQ(meter.medium, 3);
}

// A malformed key stops the store from starting: the message names the modem and the
// member, never the key's text.
TEST(DeviceSeed, AMalformedKeyIsRefusedWithoutRepeatingIt) {
    for (const char* key : {"000102030405060708090a0b0c0d0e0", "000102030405060708090a0b0c0d0e0f00",
                            "000102030405060708090a0b0c0d0e0z"}) {
        const QJsonObject seed{
            {"devices", QJsonObject{{"79", QJsonObject{{"protocol", "proto7"}, {"aes_key", key}}}}}};
        try {
            db_common::device_seed(seed);
            ADD_FAILURE() << "accepted " << key;
        } catch (const std::runtime_error& e) {
            const std::string text = e.what();
            EXPECT_EQ(text.rfind("device seed: modem 79: \"aes_key\" must be 32 hex digits", 0), 0u) << text;
            EXPECT_EQ(text.find("0102030405"), std::string::npos) << text;
        }
    }
    EXPECT_THROW(db_common::device_seed(parse(R"({"devices": {"1": {"version": 300}}})")),
                 std::runtime_error);
    EXPECT_THROW(db_common::device_seed(parse(R"({"devices": {"1": {"manufacturer": "A1B"}}})")),
                 std::runtime_error);
}

TEST(DeviceSeed, AbsentOrMistypedSeedIsEmpty) {
    EXPECT_TRUE(db_common::device_seed(QJsonObject()).empty());
    EXPECT_TRUE(db_common::device_seed(parse(R"({"devices": []})")).empty());
    EXPECT_TRUE(db_common::device_seed(parse(R"({"devices": {}})")).empty());
}

TEST(StateValue, JsonTextIsParsedWhenValid) {
    using db_common::state_value_json;
    EXPECT_EQ(state_value_json(QByteArray(R"({"a": [1, 2]})")),
              QJsonValue(QJsonObject{{"a", QJsonArray{1, 2}}}));
    EXPECT_EQ(state_value_json(QByteArray("[true]")), QJsonValue(QJsonArray{true}));
    EXPECT_EQ(state_value_json(QByteArray(" 42 ")), QJsonValue(42));
    EXPECT_EQ(state_value_json(QByteArray(R"("text")")), QJsonValue("text"));
    EXPECT_EQ(state_value_json(QByteArray("null")), QJsonValue(QJsonValue::Null));
    // Not one JSON value: kept as the text itself.
    EXPECT_EQ(state_value_json(QByteArray("1, 2")), QJsonValue("1, 2"));
    EXPECT_EQ(state_value_json(QByteArray("{broken")), QJsonValue("{broken"));
    EXPECT_EQ(state_value_json(QByteArray("")), QJsonValue(""));
    EXPECT_EQ(state_value_json(QByteArray("1] , [2")), QJsonValue("1] , [2"));
    EXPECT_EQ(state_value_json(QJsonValue(7.5)), QJsonValue(7.5));
}
