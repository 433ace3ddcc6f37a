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
