// Decoder details that the known-good data files do not show: header fields, record
// contents, the stored message layout, identifiers and the events' contents.
#include <gtest/gtest.h>

#include <QJsonArray>
#include <QJsonDocument>

#include "decoder.h"
#include "eav.h"
#include "header.h"
#include "quantities.h"
#include "stored_message.h"
#include "vif_tables.h"

namespace {

QByteArray hex(const char* text) {
    return QByteArray::fromHex(text);
}

mbus::message_context context() {
    mbus::message_context ctx;
    ctx.modem_id = 42;
    ctx.time_detected = QDateTime::fromSecsSinceEpoch(1700000000, Qt::UTC);
    ctx.tag = "mbus";
    ctx.message_id = "abc";
    ctx.ttl = QDateTime::fromSecsSinceEpoch(1700086400, Qt::UTC);
    return ctx;
}

TEST(MbusDecoder, VolumeExampleIsExact) {
    const mbus::decode_result r = mbus::decode(hex("78041339300000"));
    ASSERT_EQ(r.status, "parsed");
    ASSERT_EQ(r.records.size(), 1u);
    EXPECT_EQ(r.records[0].value.toDouble(), 12.345);
    EXPECT_EQ(r.records[0].info.unit, "m3");
    EXPECT_EQ(mbus::obis_code(r.records[0]), "volume");
}

TEST(MbusDecoder, LongHeaderFields) {
    const mbus::decode_result r = mbus::decode(hex("7278563412a7320107 2a 90 1000 041339300000"));
    ASSERT_EQ(r.status, "parsed");
    EXPECT_EQ(r.header.kind, "long");
    EXPECT_EQ(r.header.identification, "12345678");
    EXPECT_EQ(r.header.manufacturer, "LUG");
    EXPECT_EQ(r.header.manufacturer_code, 0x32a7);
    EXPECT_EQ(r.header.version, 1);
    EXPECT_EQ(r.header.medium, 7);
    EXPECT_EQ(r.header.access_number, 0x2a);
    EXPECT_EQ(r.header.status, 0x90);
    EXPECT_EQ(r.header.configuration, 0x0010);
    EXPECT_EQ(r.header.encryption_mode(), 0);
    EXPECT_EQ(r.records.size(), 1u);
}

TEST(MbusDecoder, ShortHeaderFields) {
    const mbus::decode_result r = mbus::decode(hex("7a05000f04"));
    EXPECT_EQ(r.status, "encrypted");
    EXPECT_EQ(r.header.kind, "short");
    EXPECT_EQ(r.header.access_number, 5);
    EXPECT_EQ(r.header.configuration, 0x040f);
    EXPECT_EQ(r.header.encryption_mode(), 4);
    EXPECT_TRUE(r.records.empty());
}

TEST(MbusDecoder, ManufacturerLetters) {
    EXPECT_EQ(mbus::manufacturer_letters(0x0442), "ABB");
    EXPECT_EQ(mbus::manufacturer_letters(0x32a7), "LUG");
    EXPECT_EQ(mbus::manufacturer_letters(0x6b5a), "ZZZ");
}

TEST(MbusDecoder, TextAndDateValues) {
    // Model version "ABC" sent reversed; date 2024-03-15 (type G); 2008-05-31 23:50 (type F).
    const mbus::decode_result r = mbus::decode(hex("78 0dfd0c03434241 026c0f33 046d32171f15"));
    ASSERT_EQ(r.status, "parsed");
    ASSERT_EQ(r.records.size(), 3u);
    EXPECT_EQ(r.records[0].value.toString(), "ABC");
    EXPECT_EQ(r.records[0].info.quantity, "model_version");
    EXPECT_EQ(r.records[1].value.toDateTime(), QDateTime(QDate(2024, 3, 15), QTime(0, 0), Qt::UTC));
    EXPECT_EQ(r.records[2].value.toDateTime(), QDateTime(QDate(2008, 5, 31), QTime(23, 50), Qt::UTC));
}

TEST(MbusDecoder, DateOutOfRangeHasNoValue) {
    // Day 0 and month 13 are no dates: the record stays, without a value.
    const mbus::decode_result r = mbus::decode(hex("78 026c0003 026c013d"));
    ASSERT_EQ(r.status, "parsed");
    ASSERT_EQ(r.records.size(), 2u);
    EXPECT_FALSE(r.records[0].value.isValid());
    EXPECT_FALSE(r.records[1].value.isValid());
}

TEST(MbusDecoder, RecordFieldsAndJson) {
    // DIF d4 DIFE 51: maximum, storage 3, tariff 1, subunit 1; VIF 93 VIFE 22: volume per hour.
    const mbus::decode_result r = mbus::decode(hex("7a01000000 d451932239300000"));
    ASSERT_EQ(r.status, "parsed");
    ASSERT_EQ(r.records.size(), 1u);
    const mbus::record& rec = r.records[0];
    EXPECT_EQ(rec.offset, 5);
    EXPECT_EQ(rec.function, mbus::function_field::maximum);
    EXPECT_EQ(rec.storage, 3u);
    EXPECT_EQ(rec.tariff, 1u);
    EXPECT_EQ(rec.subunit, 1u);

    const QJsonObject o = mbus::record_json(rec);
    EXPECT_EQ(o["offset"].toInt(), 5);
    EXPECT_EQ(o["dib"].toString(), "d451");
    EXPECT_EQ(o["vib"].toString(), "9322");
    EXPECT_EQ(o["data"].toString(), "39300000");
    EXPECT_EQ(o["coding"].toString(), "int32");
    EXPECT_EQ(o["quantity"].toString(), "volume_per_h");
    EXPECT_EQ(o["unit"].toString(), "m3/h");
    EXPECT_EQ(o["function"].toString(), "maximum");
    EXPECT_EQ(o["storage"].toInt(), 3);
    EXPECT_EQ(o["tariff"].toInt(), 1);
    EXPECT_EQ(o["subunit"].toInt(), 1);
    EXPECT_EQ(o["obis_code"].toString(), "volume_per_h.max.s3.t1.u1");
    EXPECT_DOUBLE_EQ(o["value"].toDouble(), 12.345);
    EXPECT_FALSE(o.contains("record_error"));
    // The stored and published text of the record, written out by hand.
    EXPECT_EQ(QJsonDocument(o).toJson(QJsonDocument::Compact),
              QByteArray(R"({"coding":"int32","data":"39300000","dib":"d451","function":"maximum",)"
                         R"("obis_code":"volume_per_h.max.s3.t1.u1","offset":5,"quantity":"volume_per_h",)"
                         R"("storage":3,"subunit":1,"tariff":1,"unit":"m3/h","value":12.345,"vib":"9322"})"));
}

TEST(MbusDecoder, StoredMessageData) {
    const mbus::decode_result r = mbus::decode(hex("7278563412a732010701000000 0dfd0c0141 026c0f33 0f0102"));
    ASSERT_EQ(r.status, "parsed");
    const QJsonObject data = mbus::message_data(r);
    const QJsonObject h = data["header"].toObject();
    EXPECT_EQ(h["ci"].toString(), "72");
    EXPECT_EQ(h["type"].toString(), "long");
    EXPECT_EQ(h["identification"].toString(), "12345678");
    EXPECT_EQ(h["manufacturer"].toString(), "LUG");
    EXPECT_EQ(h["medium"].toInt(), 7);
    EXPECT_EQ(h["access_number"].toInt(), 1);
    EXPECT_EQ(h["encryption_mode"].toInt(), 0);
    const QJsonArray records = data["records"].toArray();
    ASSERT_EQ(records.size(), 2);
    EXPECT_EQ(records[0].toObject()["value"].toString(), "A");
    EXPECT_EQ(records[0].toObject()["coding"].toString(), "variable");
    EXPECT_EQ(records[1].toObject()["value"].toString(), "2024-03-15T00:00:00Z");
    EXPECT_EQ(data["manufacturer_data"].toString(), "0102");
    EXPECT_FALSE(data["more_records_follow"].toBool());
}

TEST(MbusDecoder, NoHeaderDataHasOnlyCi) {
    const QJsonObject h = mbus::message_data(mbus::decode(hex("78")))["header"].toObject();
    EXPECT_EQ(h.keys(), QStringList({"ci", "type"}));
    EXPECT_EQ(h["type"].toString(), "none");
}

TEST(MbusDecoder, RecordErrorIsKeptInData) {
    const mbus::decode_result r = mbus::decode(hex("780283150500"));
    ASSERT_EQ(r.records.size(), 1u);
    EXPECT_EQ(mbus::record_json(r.records[0])["record_error"].toInt(), 0x15);
    EXPECT_FALSE(mbus::is_value(r.records[0]));
}

TEST(MbusDecoder, ValuesCarryTheMessageContext) {
    const mbus::message_context ctx = context();
    const QList<model::dev_value> values = mbus::to_values(mbus::decode(hex("78041339300000")), ctx);
    ASSERT_EQ(values.size(), 1);
    EXPECT_EQ(values[0].modem_id, 42);
    EXPECT_EQ(values[0].tag, "mbus");
    EXPECT_EQ(values[0].message_id, "abc");
    EXPECT_EQ(values[0].ttl, ctx.ttl);
    EXPECT_EQ(values[0].timestamp, ctx.time_detected);
    EXPECT_EQ(values[0].value.type(), QVariant::Double);
}

TEST(MbusDecoder, EventsComeFirstWithTexts) {
    // Status 0x04 (power low); error flags of storage 1 with bit 1 set, dated 2024-03-15.
    const mbus::message_context ctx = context();
    const model::eav_list eav = mbus::to_eav(mbus::decode(hex("7a01040000 42fd170200 426c0f33")), ctx);
    ASSERT_EQ(eav.size(), 3u);
    auto it = eav.begin();
    ASSERT_EQ(it->index(), 0u);
    const model::dev_event& power = std::get<model::dev_event>(*it++);
    EXPECT_EQ(power.event_code, mbus::ev_power_low);
    EXPECT_EQ(power.message, "power low");
    EXPECT_EQ(power.parameter, 4);
    EXPECT_EQ(power.extended_data.object()["status"].toInt(), 4);
    EXPECT_EQ(power.timestamp, ctx.time_detected);
    EXPECT_EQ(power.message_id, "abc");
    EXPECT_EQ(power.ttl, ctx.ttl);
    ASSERT_EQ(it->index(), 0u);
    const model::dev_event& flag = std::get<model::dev_event>(*it++);
    EXPECT_EQ(flag.event_code, mbus::ev_error_flag);
    EXPECT_EQ(flag.message, "error flag bit 1");
    EXPECT_EQ(flag.parameter, 1);
    EXPECT_EQ(flag.extended_data.object()["flags"].toInt(), 2);
    EXPECT_EQ(flag.extended_data.object()["obis_code"].toString(), "error_flags.s1");
    EXPECT_EQ(flag.timestamp, QDateTime(QDate(2024, 3, 15), QTime(0, 0), Qt::UTC));
    ASSERT_EQ(it->index(), 1u);
    EXPECT_EQ(std::get<model::dev_value>(*it).obis_code, "error_flags.s1");
}

// Error flags sent as a real: a whole, non-negative value below 2^64 is the bit field;
// anything else (negative, too large, not a number) is no bit field and flags nothing.
TEST(MbusDecoder, ErrorFlagsAsRealOutsideABitFieldFlagNothing) {
    // DIF 05 (real32), VIF FD 17 (error flags), the float little-endian.
    EXPECT_TRUE(mbus::to_events(mbus::decode(hex("78 05fd17 000080bf")), context()).isEmpty());  // -1.0
    EXPECT_TRUE(mbus::to_events(mbus::decode(hex("78 05fd17 caf24971")), context()).isEmpty());  // 1e30
    EXPECT_TRUE(mbus::to_events(mbus::decode(hex("78 05fd17 0000c0ff")), context()).isEmpty());  // NaN
    const QList<model::dev_event> six = mbus::to_events(mbus::decode(hex("78 05fd17 0000c040")), context());
    ASSERT_EQ(six.size(), 2);  // 6.0: bits 1 and 2
    EXPECT_EQ(six[0].parameter, 1);
    EXPECT_EQ(six[1].parameter, 2);
}

TEST(MbusDecoder, StatusZeroGivesNoEvents) {
    EXPECT_TRUE(mbus::to_events(mbus::decode(hex("7a01000000")), context()).isEmpty());
    EXPECT_TRUE(mbus::to_events(mbus::decode(hex("7a01000005ffff")), context()).isEmpty());
}

TEST(MbusDecoder, EncryptedPayloadStillReportsItsStatus) {
    const QList<model::dev_event> events = mbus::to_events(mbus::decode(hex("7a01040005ffff")), context());
    ASSERT_EQ(events.size(), 1);
    EXPECT_EQ(events[0].event_code, mbus::ev_power_low);
}

TEST(MbusDecoder, ScaleAppliesExponentFactorAndOffset) {
    mbus::value_info info;
    info.exponent = -3;
    EXPECT_EQ(mbus::scale(12345, info), 12.345);
    info.exponent = 2;
    info.factor = 60;
    EXPECT_EQ(mbus::scale(3, info), 18000);
    info.exponent = 0;
    info.factor = 5.0 / 9.0;
    info.offset = -32.0 * 5.0 / 9.0;
    EXPECT_NEAR(mbus::scale(32, info), 0, 1e-12);
}

TEST(MbusDecoder, EveryTableQuantityIsDocumentedWithItsUnit) {
    using lookup = bool (*)(uint8_t, mbus::value_info&);
    const lookup tables[] = {mbus::primary_vif, mbus::fd_vif, mbus::fb_vif};
    int found = 0;
    for (lookup table : tables) {
        for (int code = 0; code < 0x80; ++code) {
            mbus::value_info info;
            if (!table(uint8_t(code), info)) {
                continue;
            }
            ++found;
            const mbus::quantity_entry* q = mbus::find_quantity(info.quantity);
            ASSERT_NE(q, nullptr) << info.quantity.toStdString();
            EXPECT_EQ(info.unit, QString(q->unit)) << info.quantity.toStdString();
            EXPECT_EQ(q->is_value, info.kind == mbus::value_kind::number) << info.quantity.toStdString();
        }
    }
    EXPECT_GT(found, 200);
}

TEST(MbusDecoder, SkippedRecordIsKeptInDataWithoutValue) {
    // 0a 03 3a 12: BCD energy with the digit a at byte 3; then 01 16 07: volume 7 m3.
    const mbus::decode_result r = mbus::decode(hex("780a033a12011607"));
    ASSERT_EQ(r.records.size(), 2u);
    const QJsonObject skipped = mbus::record_json(r.records[0]);
    EXPECT_EQ(skipped["skipped"].toString(), "invalid BCD digit a, at byte 3");
    EXPECT_EQ(skipped["data"].toString(), "3a12");
    EXPECT_TRUE(skipped["value"].isNull());
    EXPECT_FALSE(mbus::is_value(r.records[0]));
    EXPECT_FALSE(mbus::record_json(r.records[1]).contains("skipped"));
    EXPECT_EQ(r.records[1].value.toDouble(), 7);
}

TEST(MbusDecoder, QualifierStaysOutOfQuantityAndUnit) {
    // 8b 3b: energy 10^3 J, positive contributions only; 0x0e10 = 3600 kJ = 1000 Wh.
    const mbus::decode_result r = mbus::decode(hex("78028b3b100e"));
    ASSERT_EQ(r.records.size(), 1u);
    const QJsonObject o = mbus::record_json(r.records[0]);
    EXPECT_EQ(o["quantity"].toString(), "energy");
    EXPECT_EQ(o["unit"].toString(), "Wh");
    EXPECT_EQ(o["obis_code"].toString(), "energy.pos");
}

TEST(MbusDecoder, JouleQuantitiesHaveNoNamesOfTheirOwn) {
    EXPECT_EQ(mbus::find_quantity("energy_j"), nullptr);
    EXPECT_EQ(mbus::find_quantity("power_jh"), nullptr);
}

TEST(MbusDecoder, RequiredQuantityNamesExist) {
    for (const char* name :
         {"energy", "volume", "mass", "power", "volume_flow", "mass_flow", "flow_temperature",
          "return_temperature", "temperature_difference", "external_temperature", "pressure", "on_time",
          "operating_time", "hca", "voltage", "current"}) {
        EXPECT_NE(mbus::find_quantity(name), nullptr) << name;
    }
}

}  // namespace

TEST(MbusDecoder, StoredValuesTakeTheFirstDateTimeElseTheFirstDateOfTheirStorage) {
    // Storage 1: a volume, the date 2024-03-15, then the date-time 2008-05-31 23:50, which
    // wins although it comes later. Storage 3 (DIF c1/c2, DIFE 01): a volume, a day-0
    // date (no value), 2023-12-31 (ff2c), 2024-03-15. Storage 0: the time detected.
    const mbus::message_context ctx = context();
    const QList<model::dev_value> values = mbus::to_values(
        mbus::decode(hex("78 411305 426c0f33 446d32171f15 c1011307 c2016c0003 c2016cff2c c2016c0f33 011309")),
        ctx);
    ASSERT_EQ(values.size(), 3);
    EXPECT_EQ(values[0].timestamp, QDateTime(QDate(2008, 5, 31), QTime(23, 50), Qt::UTC));
    EXPECT_EQ(values[1].obis_code, "volume.s3");
    EXPECT_EQ(values[1].timestamp, QDateTime(QDate(2023, 12, 31), QTime(0, 0), Qt::UTC));
    EXPECT_EQ(values[2].timestamp, ctx.time_detected);
}

// A hostile payload of 300 000 stored values and one date at the end: each value's time
// comes from a lookup built once per message. Matched against every other record per
// value, as it once was, this message would hold the service for minutes (past this
// test's timeout).
TEST(MbusDecoder, ManyStoredValuesAreDatedInOnePass) {
    constexpr int count = 300000;
    QByteArray payload = hex("78");
    for (int i = 0; i < count; ++i) {
        payload += hex("411305");  // storage 1, volume 0.005 m3
    }
    payload += hex("426c0f33");  // storage 1, 2024-03-15
    const mbus::decode_result decoded = mbus::decode(payload);
    ASSERT_EQ(decoded.records.size(), size_t(count + 1));
    const QList<model::dev_value> values = mbus::to_values(decoded, context());
    ASSERT_EQ(values.size(), count);
    const QDateTime date(QDate(2024, 3, 15), QTime(0, 0), Qt::UTC);
    EXPECT_EQ(values.first().timestamp, date);
    EXPECT_EQ(values.last().timestamp, date);
    EXPECT_EQ(values.last().value.toDouble(), 0.005);
}
