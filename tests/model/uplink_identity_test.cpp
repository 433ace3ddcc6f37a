#include <gtest/gtest.h>

#include <QDateTime>

#include "model/uplink_identity.h"

namespace {
QDateTime at(qint64 seconds) {
    return QDateTime::fromSecsSinceEpoch(seconds, Qt::UTC);
}
}  // namespace

// Expected digests from md5sum over the bytes written out by hand, e.g.
//   printf '\x78\x04\x13\x39\x30\x00\x00\x07\x00\x00\x00\x03\x00\x00\x00\x00\xf1\x53\x65' | md5sum
//   = 3af843c7af318358 ce83fe25dfacd565, whose halves xor to f47bbde2709d563d.
TEST(UplinkUniqueId, Md5OfPayloadAndLittleEndianFieldsFoldedByXor) {
    const QByteArray payload = QByteArray::fromHex("78041339300000");
    EXPECT_EQ(model::uplink_unique_id(payload, 7, 3, at(1700000000)), Q_INT64_C(-829860926070106563));
    // Negative modem id as two's complement (fb ff ff ff), iterator 65536 (00 00 01 00), and
    // a time past 2^32 s of which only the low 32 bits (01 00 00 00) count:
    //   printf '\x01\x02\xfb\xff\xff\xff\x00\x00\x01\x00\x01\x00\x00\x00' | md5sum
    //   = d7eba387822bdc93 9cd6bcad1cfcd758 -> 4b3d1f2a9ed70bcb
    EXPECT_EQ(model::uplink_unique_id(QByteArray::fromHex("0102"), -5, 65536, at(4294967297)),
              Q_INT64_C(0x4b3d1f2a9ed70bcb));
    EXPECT_EQ(model::uplink_unique_id(QByteArray::fromHex("0102"), -5, 65536, at(1)),
              Q_INT64_C(0x4b3d1f2a9ed70bcb));
}

TEST(UplinkUniqueId, EveryInputCounts) {
    const QByteArray p = QByteArray::fromHex("78041339300000");
    const QDateTime t = at(1700000000);
    const int64_t id = model::uplink_unique_id(p, 7, 3, t);
    EXPECT_NE(model::uplink_unique_id(p, 8, 3, t), id);
    EXPECT_NE(model::uplink_unique_id(p, 7, 4, t), id);
    EXPECT_NE(model::uplink_unique_id(p, 7, 3, t.addSecs(1)), id);
    EXPECT_NE(model::uplink_unique_id(QByteArray::fromHex("78"), 7, 3, t), id);
}

TEST(UplinkMessageId, UnsignedLowerHexWithoutLeadingZeros) {
    EXPECT_EQ(model::uplink_message_id(Q_INT64_C(-829860926070106563)), "f47bbde2709d563d");
    EXPECT_EQ(model::uplink_message_id(255), "ff");
    EXPECT_EQ(model::uplink_message_id(0), "0");
    EXPECT_EQ(model::uplink_message_id(-1), "ffffffffffffffff");
}

TEST(UplinkFieldCopy, TakesEveryRadioFieldButNotTheModemOrTheDriversOwn) {
    model::ul_app_message in;
    in.hw_type = "MARL3";
    in.protocol = "proto7";
    in.station_id = 41;
    in.phy = "lora";
    in.snr = -7;
    in.rssi = -120;
    in.payload = QByteArray::fromHex("a1b2");
    in.iterator = 9;
    in.tz_mismatch = true;
    in.time_detected = at(1700000123);
    in.dl_phy = "fsk";
    in.last_dl_bs_aver_busyness = 0.25;
    in.last_dl_bs_busyness = 0.75;
    in.bs_tz = -180;
    in.modem_id = 5;

    model::ul_message out;
    out.modem_id = 77;
    out.tag = "driver.tag";
    out.parse_status = "parsed";
    model::copy_uplink_fields(in, out);

    EXPECT_EQ(out.hw_type, "MARL3");
    EXPECT_EQ(out.protocol, "proto7");
    EXPECT_EQ(out.station_id, 41);
    EXPECT_EQ(out.phy, "lora");
    EXPECT_EQ(out.snr, -7);
    EXPECT_EQ(out.rssi, -120);
    EXPECT_EQ(out.payload, QByteArray::fromHex("a1b2"));
    EXPECT_EQ(out.iterator, 9);
    EXPECT_TRUE(out.tz_mismatch);
    EXPECT_EQ(out.time_detected, at(1700000123));
    EXPECT_EQ(out.dl_phy, "fsk");
    EXPECT_EQ(out.last_dl_bs_aver_busyness, 0.25);
    EXPECT_EQ(out.last_dl_bs_busyness, 0.75);
    EXPECT_EQ(out.bs_timezone_offset, -180);
    EXPECT_EQ(out.modem_id, 77);
    EXPECT_EQ(out.tag, "driver.tag");
    EXPECT_EQ(out.parse_status, "parsed");
}
