// AES-128 and the key derivation checked against published vectors, the meter fields of
// the device registry, and what the decoder keeps (and never keeps) of a key.
#include <gtest/gtest.h>

#include <QJsonDocument>
#include <QJsonObject>
#include <stdexcept>

#include "aes.h"
#include "decoder.h"
#include "header.h"
#include "security.h"
#include "stored_message.h"

namespace {

QByteArray hex(const char* text) {
    return QByteArray::fromHex(QByteArray(text).replace(' ', ""));
}

std::string hex_of(const QByteArray& bytes) {
    return bytes.toHex().toStdString();
}

// RFC 4493, section 4: AES-CMAC with the key 2b7e1516 28aed2a6 abf71588 09cf4f3c.
TEST(MbusAes, CmacMatchesRfc4493Examples) {
    const QByteArray key = hex("2b7e1516 28aed2a6 abf71588 09cf4f3c");
    EXPECT_EQ(hex_of(mbus::aes128_cmac(key, QByteArray())), "bb1d6929e95937287fa37d129b756746");
    EXPECT_EQ(hex_of(mbus::aes128_cmac(key, hex("6bc1bee2 2e409f96 e93d7e11 7393172a"))),
              "070a16b46b4d4144f79bdd9dd04a287c");
    EXPECT_EQ(
        hex_of(mbus::aes128_cmac(key, hex("6bc1bee2 2e409f96 e93d7e11 7393172a ae2d8a57 1e03ac9c 9eb76fac "
                                          "45af8e51 30c81c46 a35ce411"))),
        "dfa66747de9ae63030ca32611497c827");
}

// NIST SP 800-38A, F.2.1 / F.2.2: CBC-AES128, first two blocks.
TEST(MbusAes, CbcMatchesSp80038aExample) {
    const QByteArray key = hex("2b7e151628aed2a6abf7158809cf4f3c");
    const QByteArray iv = hex("000102030405060708090a0b0c0d0e0f");
    const QByteArray plain = hex("6bc1bee22e409f96e93d7e117393172a ae2d8a571e03ac9c9eb76fac45af8e51");
    const QByteArray cipher = hex("7649abac8119b246cee98e9b12e9197d 5086cb9b507219ee95db113a917678b2");
    EXPECT_EQ(hex_of(mbus::aes128_cbc_encrypt(key, iv, plain)), hex_of(cipher));
    EXPECT_EQ(hex_of(mbus::aes128_cbc_decrypt(key, iv, cipher)), hex_of(plain));
    EXPECT_THROW(mbus::aes128_cbc_decrypt(key.left(15), iv, cipher), std::runtime_error);
    EXPECT_THROW(mbus::aes128_cbc_decrypt(key, iv, cipher.left(17)), std::runtime_error);
}

// The published example (Amber Wireless AMB8426-M manual): AMB 12345678, version 0,
// type 3, access number 0x35.
TEST(MbusSecurity, Mode5InitializationVectorFromTheRegistryAddress) {
    model::meter_link meter;
    meter.manufacturer = "AMB";
    meter.identification = "12345678";
    meter.version = 0;
    meter.medium = 3;
    mbus::app_header short_header;
    const QByteArray address = mbus::meter_address(short_header, meter);
    EXPECT_EQ(hex_of(mbus::mode5_iv(address, 0x35)), "a2057856341200033535353535353535");
}

TEST(MbusSecurity, LongHeaderAddressWinsOverTheRegistry) {
    model::meter_link meter;
    meter.manufacturer = "AMB";
    meter.identification = "11111111";
    meter.version = 9;
    meter.medium = 9;
    const mbus::decode_result r = mbus::decode(hex("72 78563412 2d2c 1b 07 2a 00 0000"));
    ASSERT_EQ(r.status.toStdString(), "parsed");
    // manufacturer, identification, version, medium in link-layer order
    EXPECT_EQ(hex_of(mbus::meter_address(r.header, meter)), "2d2c785634121b07");
}

// Key for encryption from the meter: CMAC(K, 00 || counter || identification || 07 x 7);
// the expected key was computed with `openssl mac -cipher AES-128-CBC ... CMAC`.
TEST(MbusSecurity, Mode7KeyDerivation) {
    EXPECT_EQ(hex_of(mbus::mode7_encryption_key(hex("11223344556677889900aabbccddeeff"), hex("03010000"),
                                                hex("21436587"))),
              "18642bc0eb617139664cfe935423d7c4");
}

TEST(MbusSecurity, RegistryFieldsAreChecked) {
    const QJsonObject good{{"aes_key", "000102030405060708090A0B0C0D0E0F"},
                           {"manufacturer", "amb"},
                           {"identification", "1234ABCD"},
                           {"version", 0},
                           {"medium", 255}};
    const model::meter_link link = model::meter_link_from_json(good);
    EXPECT_EQ(hex_of(link.aes_key), "000102030405060708090a0b0c0d0e0f");
    EXPECT_EQ(link.manufacturer.toStdString(), "AMB");
    EXPECT_EQ(link.identification.toStdString(), "1234abcd");
    EXPECT_EQ(link.version, 0);
    EXPECT_EQ(link.medium, 255);
    EXPECT_TRUE(link.has_key() && link.has_address());
    EXPECT_TRUE(model::meter_link_from_json(QJsonObject()).empty());

    auto rejected = [](const QJsonObject& entry) -> std::string {
        try {
            model::meter_link_from_json(entry);
        } catch (const std::invalid_argument& e) {
            return e.what();
        }
        return "accepted";
    };
    // 31 and 33 digits, a non-hex digit, a number: each refused, the key never echoed.
    const char* short_key = "000102030405060708090a0b0c0d0e0";
    EXPECT_EQ(rejected({{"aes_key", short_key}}),
              "\"aes_key\" must be 32 hex digits (16 bytes), got 31 characters");
    EXPECT_NE(rejected({{"aes_key", "000102030405060708090a0b0c0d0e0f0"}}).find("got 33 characters"),
              std::string::npos);
    const std::string not_hex = rejected({{"aes_key", "g00102030405060708090a0b0c0d0e0f"}});
    EXPECT_NE(not_hex.find("not all hex digits"), std::string::npos);
    EXPECT_EQ(not_hex.find("0001020304"), std::string::npos);
    EXPECT_NE(rejected({{"aes_key", 5}}).find("\"aes_key\" must be a text"), std::string::npos);
    EXPECT_NE(rejected({{"manufacturer", "AM"}}).find("three letters"), std::string::npos);
    EXPECT_NE(rejected({{"identification", "1234567"}}).find("8 digits"), std::string::npos);
    EXPECT_NE(rejected({{"version", 256}}).find("0 to 255"), std::string::npos);
    EXPECT_NE(rejected({{"medium", 1.5}}).find("0 to 255"), std::string::npos);
    EXPECT_NE(rejected({{"medium", "3"}}).find("0 to 255"), std::string::npos);
}

TEST(MbusSecurity, PublicJsonSaysOnlyWhetherAKeyIsSet) {
    model::meter_link link = model::meter_link_from_json(
        {{"aes_key", "0f1e2d3c4b5a69788796a5b4c3d2e1f0"}, {"manufacturer", "KAM"}, {"version", 27}});
    const QJsonObject shown = model::meter_link_public_json(link);
    EXPECT_EQ(shown, (QJsonObject{{"manufacturer", "KAM"}, {"version", 27}, {"aes_key_set", true}}));
    link.aes_key.clear();
    EXPECT_FALSE(model::meter_link_public_json(link)["aes_key_set"].toBool(true));
}

// The stored message of a decrypted telegram says it was decrypted and holds the plain
// records, never the key; a failed one says why without the key either.
TEST(MbusSecurity, StoredDataNeverHoldsTheKey) {
    const char* key_text = "0f1e2d3c4b5a69788796a5b4c3d2e1f0";
    model::meter_link meter = model::meter_link_from_json({{"aes_key", key_text}});
    const QByteArray payload = hex(
        "72 78563412 2d2c 1b 07 2a 00 2005 fcc7049b3f17fddeb956afd493c5d05b36f06b808649b632525318101e8eaa5f "
        "02fd746d01");
    const mbus::decode_result good = mbus::decode(payload, meter);
    ASSERT_EQ(good.status.toStdString(), "parsed");
    EXPECT_TRUE(good.decrypted);
    const QByteArray good_json = QJsonDocument(mbus::message_data(good)).toJson();
    EXPECT_TRUE(mbus::message_data(good)["decrypted"].toBool());
    EXPECT_EQ(good_json.toLower().indexOf(key_text), -1);

    meter.aes_key[0] = char(meter.aes_key[0] ^ 1);
    const mbus::decode_result bad = mbus::decode(payload, meter);
    ASSERT_EQ(bad.status.toStdString(), "decryption failed");
    EXPECT_NE(bad.security_problem.indexOf("2F 2F"), -1);
    const QByteArray bad_json = QJsonDocument(mbus::message_data(bad)).toJson().toLower();
    EXPECT_FALSE(mbus::message_data(bad)["decrypted"].toBool(true));
    EXPECT_EQ(bad_json.indexOf(QByteArray(meter.aes_key.toHex())), -1);
    EXPECT_EQ(bad_json.indexOf(key_text), -1);
}

TEST(MbusSecurity, AflFieldsAreReadAndFaultsNamed) {
    const mbus::decode_result r =
        mbus::decode(hex("90 0f 002c 25 03010000 1122334455667788 7a 01 00 0000 041339300000"));
    ASSERT_EQ(r.status.toStdString(), "parsed");
    EXPECT_TRUE(r.header.has_afl);
    EXPECT_EQ(r.header.message_counter_value(), 0x103u);
    EXPECT_EQ(hex_of(r.header.mac), "1122334455667788");
    EXPECT_EQ(r.records.front().offset, 22);  // offsets count from the AFL's CI field

    EXPECT_EQ(mbus::decode(hex("90 02 0040 7a010000")).status.toStdString(),
              "error: unsupported fragmented AFL message, at byte 1");
    EXPECT_EQ(mbus::decode(hex("90 0f 002c 25 0301")).status.toStdString(),
              "error: truncated AFL: 15 bytes needed, 5 left, at byte 2");
    // A MAC announced nowhere but bytes left over.
    EXPECT_EQ(mbus::decode(hex("90 04 0000 aabb 7a010000")).status.toStdString(),
              "error: AFL length does not match its fields, at byte 1");
}

// A payload the driver can decrypt asks for the registry; others never do.
TEST(MbusSecurity, OnlyModes5And7NeedTheRegistry) {
    EXPECT_TRUE(mbus::needs_meter_link(hex("7a35001005 1e34c77cfe6c59b154b663297fe6c3f7")));
    EXPECT_TRUE(mbus::needs_meter_link(hex("7a 10 00 1007 10 2932548d")));
    EXPECT_FALSE(mbus::needs_meter_link(hex("7a 10 00 1009 aabb")));
    EXPECT_FALSE(mbus::needs_meter_link(hex("7a 10 00 0000 041339300000")));
    EXPECT_FALSE(mbus::needs_meter_link(hex("7a 10")));
}

}  // namespace
