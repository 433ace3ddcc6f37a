// Field tables as the broker sends them (message headers), read into Qt values.
#include <amqp.h>
#include <gtest/gtest.h>

#include <QDateTime>
#include <QVariantList>
#include <QVariantMap>

#include "amqp/amqp_fields.h"

namespace {

amqp_field_value_t text(const char* value) {
    amqp_field_value_t field{};
    field.kind = AMQP_FIELD_KIND_UTF8;
    field.value.bytes = amqp_cstring_bytes(value);
    return field;
}

amqp_table_entry_t entry(const char* key, amqp_field_value_t value) {
    amqp_table_entry_t e{};
    e.key = amqp_cstring_bytes(key);
    e.value = value;
    return e;
}

// An x-death header of one death: {"x-death": [{"count": 1, "reason": "rejected", "queue": "q",
// "time": 2030-03-17T17:46:40Z, "exchange": "norvik.api", "routing-keys": ["a.b", "c"]}]}.
TEST(amqp_fields, reads_x_death_as_a_list_of_maps_with_nested_arrays) {
    amqp_field_value_t keys_array[] = {text("a.b"), text("c")};
    amqp_field_value_t keys{};
    keys.kind = AMQP_FIELD_KIND_ARRAY;
    keys.value.array = {2, keys_array};
    amqp_field_value_t count{};
    count.kind = AMQP_FIELD_KIND_I64;
    count.value.i64 = 1;
    amqp_field_value_t time{};
    time.kind = AMQP_FIELD_KIND_TIMESTAMP;
    time.value.u64 = 1900000000;
    amqp_table_entry_t death_entries[] = {
        entry("count", count), entry("reason", text("rejected")),     entry("queue", text("q")),
        entry("time", time),   entry("exchange", text("norvik.api")), entry("routing-keys", keys)};
    amqp_field_value_t death{};
    death.kind = AMQP_FIELD_KIND_TABLE;
    death.value.table = {6, death_entries};
    amqp_field_value_t deaths{};
    deaths.kind = AMQP_FIELD_KIND_ARRAY;
    deaths.value.array = {1, &death};
    amqp_field_value_t flag{};
    flag.kind = AMQP_FIELD_KIND_BOOLEAN;
    flag.value.boolean = 1;
    amqp_table_entry_t top[] = {entry("x-death", deaths), entry("flag", flag)};

    const QVariantHash headers = amqp::read_table(amqp_table_t{2, top});
    ASSERT_EQ(headers.size(), 2);
    EXPECT_EQ(headers.value("flag"), QVariant(true));
    const QVariant list = headers.value("x-death");
    ASSERT_EQ(list.type(), QVariant::List);
    ASSERT_EQ(list.toList().size(), 1);
    const QVariant first = list.toList().first();
    ASSERT_EQ(first.type(), QVariant::Map);
    const QVariantMap map = first.toMap();
    EXPECT_EQ(map.value("count"), QVariant(qlonglong(1)));
    EXPECT_EQ(map.value("reason"), QVariant(QString("rejected")));
    EXPECT_EQ(map.value("exchange").toString(), "norvik.api");
    EXPECT_EQ(map.value("routing-keys").toList(), (QVariantList{QString("a.b"), QString("c")}));
    EXPECT_EQ(map.value("time").toDateTime(), QDateTime(QDate(2030, 3, 17), QTime(17, 46, 40), Qt::UTC));
}

TEST(amqp_fields, keeps_bytes_apart_from_texts_and_reads_numbers_and_void) {
    amqp_field_value_t bytes{};
    bytes.kind = AMQP_FIELD_KIND_BYTES;
    bytes.value.bytes = {3, const_cast<char*>("\x00\xff\x41")};
    EXPECT_EQ(amqp::read_field(bytes), QVariant(QByteArray("\x00\xff\x41", 3)));
    amqp_field_value_t small{};
    small.kind = AMQP_FIELD_KIND_I8;
    small.value.i8 = -5;
    EXPECT_EQ(amqp::read_field(small), QVariant(-5));
    amqp_field_value_t decimal{};
    decimal.kind = AMQP_FIELD_KIND_DECIMAL;
    decimal.value.decimal = {2, 12345};
    EXPECT_DOUBLE_EQ(amqp::read_field(decimal).toDouble(), 123.45);
    amqp_field_value_t nothing{};
    nothing.kind = AMQP_FIELD_KIND_VOID;
    EXPECT_FALSE(amqp::read_field(nothing).isValid());
    EXPECT_TRUE(amqp::read_table(amqp_table_t{0, nullptr}).isEmpty());
}

}  // namespace
