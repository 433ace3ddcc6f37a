#include <gtest/gtest.h>

#include <QByteArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <cstddef>
#include <utility>
#include <vector>

#include "model/json_body.h"

#if defined(__has_feature)
#if __has_feature(address_sanitizer)
#define QUILLON_TEST_ASAN 1
#endif
#endif
#if defined(__SANITIZE_ADDRESS__)
#define QUILLON_TEST_ASAN 1
#endif

#ifdef QUILLON_TEST_ASAN
#include <sanitizer/allocator_interface.h>
#else
#include <malloc.h>
#endif

namespace {

// Bytes the process holds from the allocator now (AddressSanitizer keeps its own heap).
size_t allocated_bytes() {
#ifdef QUILLON_TEST_ASAN
    return __sanitizer_get_current_allocated_bytes();
#else
    return mallinfo2().uordblks;
#endif
}

QJsonObject object_of(const char* unique_json) {
    return QJsonDocument::fromJson(unique_json).object();
}

}  // namespace

TEST(DeliveryBody, ANameGivenTwiceTakesItsLastValue) {
    const std::vector<std::pair<const char*, const char*>> cases = {
        {R"({"a":[1],"a":2})", R"({"a":2})"},
        {R"({"a":{"b":1},"c":"x","a":[3,4]})", R"({"a":[3,4],"c":"x"})"},
        {R"({"a":[1],"a":[2],"a":[3]})", R"({"a":[3]})"},
        {R"({ "a" : [ 1 ] , "b" : null , "a" : true })", R"({"a":true,"b":null})"},
        // In a nested object, and a replaced value with repeated names of its own.
        {R"({"o":{"k":[1],"k":{"z":[2]}}})", R"({"o":{"k":{"z":[2]}}})"},
        {R"({"a":{"x":[1],"x":[2]},"a":5})", R"({"a":5})"},
        {R"({"l":[{"k":[1],"k":0},{"k":{},"k":[7]}]})", R"({"l":[{"k":0},{"k":[7]}]})"},
        // The same name written with escapes, or as UTF-8 and escaped.
        {R"({"a":[1],"\u0061":"e"})", R"({"a":"e"})"},
        {"{\"\xc3\xa9\":[1],\"\\u00e9\":0}", "{\"\xc3\xa9\":0}"},
        {R"({"q\"":[1],"q\u0022":2})", R"({"q\"":2})"},
        // Quotes, brackets, commas and colons inside strings are text.
        {R"({"s":"}\"{,:[","a":[1],"a":3})", R"({"s":"}\"{,:[","a":3})"},
        {R"({"a\\":[1],"a":[2]})", R"({"a\\":[1],"a":[2]})"},
        {R"({"s":"x\\","a":[1],"a":2})", R"({"s":"x\\","a":2})"},
        {R"({"s":"\\\"}","a":[1],"a":2})", R"({"s":"\\\"}","a":2})"},
    };
    for (const auto& [body, expected] : cases) {
        EXPECT_EQ(model::object_of_body(body), object_of(expected)) << body;
    }
}

TEST(DeliveryBody, NotAnObjectReadsAsAnEmptyObject) {
    for (const char* body : {"", "not json", "42", "[1,2]", R"([{"a":[1],"a":2}])", R"({"a":[1],"a":2)",
                             R"({"a":[1],"a":2}})", R"({"a":[1]]})", R"("{\"a\":1}")"}) {
        EXPECT_TRUE(model::object_of_body(body).isEmpty()) << body;
    }
}

TEST(DeliveryBody, UniqueNamesLeaveTheBodyAsItIs) {
    const QByteArray uplink =
        R"({"modem_id": 1234, "payload": "2f2f0413", "data": {"a": [1, {"a": 2}], "b": {"a": "a"}},)"
        R"( "extended_data": {}, "time_detected": 1700000000, "rssi": -97, "tag": "\"a\":[1]"})";
    EXPECT_EQ(model::json_body_detail::without_replaced_values(uplink), uplink);
    EXPECT_EQ(model::object_of_body(uplink).value("data").toObject().value("b").toObject().value("a"), "a");
}

// Qt's parser used to keep every replaced array or object (some 80 bytes each) for good:
// a service fed such bodies grew without bound.
TEST(DeliveryBody, RepeatedNamesCostNoMemory) {
    const QByteArray bodies[] = {R"({"a":[1],"a":[1]})", R"([{"o":{"k":{"x":1},"k":{"x":1}}}])",
                                 R"({"a":{"b":[1,2]},"\u0061":[3],"a":0})"};
    for (const QByteArray& body : bodies) {
        model::object_of_body(body);
        const size_t before = allocated_bytes();
        for (int i = 0; i < 20000; ++i) {
            model::object_of_body(body);
        }
        const size_t after = allocated_bytes();
        EXPECT_LT(after, before + 64 * 1024) << body.constData() << ": " << (after - before) << " bytes more";
    }
}

// Of many members of one name Qt's parser kept an arbitrary one (of 20: the fourth).
TEST(DeliveryBody, ManyMembersOfOneNameTakeTheLast) {
    QByteArray body = "{";
    for (int i = 0; i < 100000; ++i) {
        body += "\"a\":[" + QByteArray::number(i) + "],\"b\":{\"c\":[" + QByteArray::number(i) + "]},";
    }
    body += R"("a":"last"})";
    const size_t before = allocated_bytes();
    EXPECT_EQ(model::object_of_body(body), object_of(R"({"a":"last","b":{"c":[99999]}})"));
    EXPECT_LT(allocated_bytes(), before + 1024 * 1024);

    body = "{";
    for (int i = 0; i < 20; ++i) {
        body += "\"a\":" + QByteArray::number(i) + ",";
    }
    body += R"("b":1})";
    EXPECT_EQ(model::object_of_body(body), object_of(R"({"a":19,"b":1})"));
}
