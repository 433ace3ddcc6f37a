// Downlink commands and calibration of the M-Bus driver. The expected bytes are worked
// out by hand from EN 13757-3: type F is minute (bits 0-5), hour (8-12), day (16-20),
// year bits 0-2 (21-23), month (24-27), year bits 3-6 (28-31), the year counted from 2000.
#include <gtest/gtest.h>

#include <cmath>
#include <stdexcept>

#include "calibration.h"
#include "dl_encoder.h"

namespace {

QByteArray encode(const QJsonObject& data) {
    return mbus::encode_command(data);
}

std::string error_of(const QJsonObject& data) {
    try {
        mbus::encode_command(data);
    } catch (const std::invalid_argument& e) {
        return e.what();
    }
    return "no error";
}

TEST(MbusCommands, SetDatetimeIsATypeFRecord) {
    // 2024-03-15 13:45:59 UTC: minute 45 = 0x2d, hour 13 = 0x0d, day 15 with year 24
    // (0b0011000) low bits 000 = 0x0f, month 3 with year high bits 0011 = 0x33; the
    // seconds are dropped.
    EXPECT_EQ(encode({{"cmd", "set_datetime"}, {"time", 1710510359}}).toHex(), "51046d2d0d0f33");
    // 2026-11-23 18:31 UTC: 0x1f, 0x12, day 23 | year 26 (0b0011010) low bits 010 << 5 = 0x57,
    // month 11 | 0011 << 4 = 0x3b.
    EXPECT_EQ(encode({{"cmd", "set_datetime"}, {"time", 1795458660}}).toHex(), "51046d1f12573b");
    // The ends of the range: 2000-01-01 00:00 and 2127-12-31 23:59 (year 127, all bits set).
    EXPECT_EQ(encode({{"cmd", "set_datetime"}, {"time", 946684800}}).toHex(), "51046d00000101");
    EXPECT_EQ(encode({{"cmd", "set_datetime"}, {"time", 4985971140.0}}).toHex(), "51046d3b17fffc");
}

TEST(MbusCommands, SetDatetimeRefusesTimesOutsideTheField) {
    EXPECT_NE(error_of({{"cmd", "set_datetime"}, {"time", 946684799}}).find("\"time\" of \"set_datetime\""),
              std::string::npos);
    EXPECT_NE(error_of({{"cmd", "set_datetime"}, {"time", 4985971200.0}}), "no error");
    EXPECT_NE(error_of({{"cmd", "set_datetime"}, {"time", "2024-03-15"}}), "no error");
    EXPECT_NE(error_of({{"cmd", "set_datetime"}}), "no error");
    EXPECT_NE(error_of({{"cmd", "set_datetime"}, {"time", 1710510359.5}}), "no error");
}

TEST(MbusCommands, ApplicationResetIsCi50) {
    EXPECT_EQ(encode({{"cmd", "application_reset"}}), QByteArray::fromHex("50"));
}

TEST(MbusCommands, SetPrimaryAddressIsAnInt8BusAddressRecord) {
    EXPECT_EQ(encode({{"cmd", "set_primary_address"}, {"address", 5}}).toHex(), "51017a05");
    EXPECT_EQ(encode({{"cmd", "set_primary_address"}, {"address", 0}}).toHex(), "51017a00");
    EXPECT_EQ(encode({{"cmd", "set_primary_address"}, {"address", 250}}).toHex(), "51017afa");
    EXPECT_EQ(
        error_of({{"cmd", "set_primary_address"}, {"address", 251}}),
        "mbus downlink: \"address\" of \"set_primary_address\" must be a whole number from 0 to 250, not "
        "251");
    EXPECT_NE(error_of({{"cmd", "set_primary_address"}, {"address", -1}}), "no error");
    EXPECT_NE(error_of({{"cmd", "set_primary_address"}, {"address", 2.5}}), "no error");
    EXPECT_NE(error_of({{"cmd", "set_primary_address"}, {"address", "5"}}), "no error");
}

TEST(MbusCommands, RawHexGoesBetweenThePlaceholders) {
    EXPECT_EQ(encode({{"cmd", "raw"}, {"hex", "0a0B"}}), QByteArray("start_placeholder0a0Bstop_placeholder"));
    EXPECT_NE(error_of({{"cmd", "raw"}, {"hex", "0a0"}}), "no error");
    EXPECT_NE(error_of({{"cmd", "raw"}, {"hex", "zz"}}), "no error");
    EXPECT_NE(error_of({{"cmd", "raw"}, {"hex", ""}}), "no error");
    EXPECT_NE(error_of({{"cmd", "raw"}, {"hex", QString(514, QChar('a'))}}), "no error");
    EXPECT_NE(error_of({{"cmd", "raw"}}), "no error");
}

TEST(MbusCommands, UnknownCommandsAndDataWithoutCommand) {
    EXPECT_EQ(error_of({{"cmd", "open"}}),
              "mbus downlink: unknown \"cmd\" \"open\" (set_datetime, application_reset, "
              "set_primary_address or raw)");
    EXPECT_TRUE(mbus::is_command({{"cmd", "open"}}));
    EXPECT_FALSE(mbus::is_command({{"cmd", 1}}));
    EXPECT_FALSE(mbus::is_command({{"raw_payload", "0a0b"}}));
}

TEST(MbusCommands, WhatNeedsAConfirmingUplink) {
    EXPECT_TRUE(mbus::needs_confirmation({{"cmd", "set_primary_address"}, {"address", 5}}));
    EXPECT_FALSE(mbus::needs_confirmation({{"cmd", "set_datetime"}, {"time", 1710510359}}));
    EXPECT_FALSE(mbus::needs_confirmation({{"cmd", "application_reset"}}));
    EXPECT_FALSE(mbus::needs_confirmation({{"cmd", "raw"}, {"hex", "00"}}));
    EXPECT_TRUE(mbus::writable_setting("bus_address"));
    EXPECT_FALSE(mbus::writable_setting("volume"));
}

model::dev_value value(const QString& obis, double v) {
    model::dev_value out;
    out.obis_code = obis;
    out.value = v;
    out.tag = "mbus";
    return out;
}

TEST(MbusCalibration, FactorAndOffsetByObisCodeOrQuantity) {
    const mbus::calibration c(QJsonObject{{"volume", QJsonObject{{"factor", 2}, {"offset", 0.5}}},
                                          {"volume.s1", QJsonObject{{"offset", -1}}},
                                          {"energy", QJsonObject{{"factor", 1000}}}});
    model::dev_value v = value("volume", 12.345);
    c.apply(v);
    EXPECT_DOUBLE_EQ(v.value.toDouble(), 25.19);  // 12.345 * 2 + 0.5
    EXPECT_EQ(v.tag, "mbus.calibrated");
    v = value("volume.s2", 10);
    c.apply(v);
    EXPECT_DOUBLE_EQ(v.value.toDouble(), 20.5);  // by its quantity
    v = value("volume.s1", 10);
    c.apply(v);
    EXPECT_DOUBLE_EQ(v.value.toDouble(), 9);  // its own group wins: factor 1, offset -1
    v = value("energy", 3);
    c.apply(v);
    EXPECT_DOUBLE_EQ(v.value.toDouble(), 3000);
    v = value("mass", 3);
    c.apply(v);
    EXPECT_DOUBLE_EQ(v.value.toDouble(), 3);
    EXPECT_EQ(v.tag, "mbus");
}

TEST(MbusCalibration, ItemsAreChecked) {
    EXPECT_NO_THROW(mbus::calibration::check({"volume", "factor", 1.5}));
    EXPECT_NO_THROW(mbus::calibration::check({"volume", "offset", -2}));
    EXPECT_THROW(mbus::calibration::check({"volume", "gain", 1}), std::invalid_argument);
    EXPECT_THROW(mbus::calibration::check({"", "factor", 1}), std::invalid_argument);
    EXPECT_THROW(mbus::calibration::check({"volume", "factor", std::nan("")}), std::invalid_argument);
}

}  // namespace
