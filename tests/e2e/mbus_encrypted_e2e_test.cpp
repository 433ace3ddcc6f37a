// Encrypted wireless M-Bus meters through the service process, the broker and the SQLite
// store: the key and the meter's address come from the "devices" seed, a security mode 5
// and a security mode 7 telegram decode into values that reach the client and
// get_eav_value; a missing and a wrong key are told apart and logged once per modem; the
// key appears nowhere in the log, the replies or the publications.
#include "tests/e2e/e2e_fixture.h"

namespace {

using e2e::ids;
using e2e::key_of;

// Telegrams worked out by hand (see tests/drivers/data/mbus_security.json for the bytes).
// Mode 5, long header (KAM 12345678, version 0x1B, medium 7, access number 0x2A), two
// encrypted blocks: volume 12.345 m3, flow temperature 56.8 C, volume.s1 10 m3, energy
// 1000 kWh; then plain: battery lifetime 365 days.
const QString mode5_payload =
    "7278563412"
    "2d2c1b072a002005"
    "fcc7049b3f17fddeb956afd493c5d05b36f06b808649b632525318101e8eaa5f"
    "02fd746d01";
const char* mode5_key = "0f1e2d3c4b5a69788796a5b4c3d2e1f0";
// Mode 7 after an AFL (message counter 0x103), short header: the identification 87654321
// comes from the registry; one block: energy 100000 kWh.
const QString mode7_payload =
    "900f002c25030100001122334455667788"
    "7a10001007"
    "10"
    "2932548d1d0a5bfd873b982fdc7cb081";
const char* mode7_key = "11223344556677889900aabbccddeeff";
const char* wrong_key = "0f1e2d3c4b5a69788796a5b4c3d2e1f1";

class MbusEncrypted : public e2e::service_test {
protected:
    void configure(e2e::service_process& service) override {
        QJsonObject mode5 = device("X", {client("meter")});
        mode5["aes_key"] = mode5_key;
        QJsonObject mode7 = device("X", {client("meter")});
        mode7["aes_key"] = mode7_key;
        mode7["manufacturer"] = "ABC";
        mode7["identification"] = "87654321";
        mode7["version"] = 1;
        mode7["medium"] = 4;
        QJsonObject keyless = device("X", {client("meter")});
        QJsonObject wrong = device("X", {client("meter")});
        wrong["aes_key"] = wrong_key;
        service.set_database("db_driver_sqlite",
                             QJsonObject{{"devices", QJsonObject{{key_of(modem(0)), mode5},
                                                                 {key_of(modem(1)), mode7},
                                                                 {key_of(modem(2)), keyless},
                                                                 {key_of(modem(3)), wrong}}},
                                         {"path", m_dir.filePath("quillon.db")},
                                         {"purge_interval", 0}});
    }

    // Every text the service produced for anyone: its log, the replies, the publications.
    QByteArray everything_said(const e2e::probe& publications) const {
        QByteArray all = m_service.log().toUtf8();
        for (const auto& message : m_replies->messages()) {
            all += message.payload;
        }
        for (const auto& message : publications.messages()) {
            all += message.payload;
        }
        return all.toLower();
    }

    // (obis_code, value) of the values a modem's client received, in arrival order.
    static QList<QPair<QString, double>> published(const e2e::probe& probe, int modem_id) {
        QList<QPair<QString, double>> out;
        for (const auto& message : probe.messages()) {
            const QJsonObject json = message.json();
            if (message.routing_key.contains(".ul_eav.") && json.value("modem_id").toInt() == modem_id) {
                out.append({json.value("obis_code").toString(), json.value("value").toDouble()});
            }
        }
        return out;
    }
};

TEST_F(MbusEncrypted, Mode5AndMode7DecodeWithTheRegistryKeyWhichIsNeverShown) {
    e2e::probe publications({client("meter") + ".#"});
    ASSERT_TRUE(publications.wait_ready());
    publish_uplink(modem(0), mode5_payload, 1);
    publish_uplink(modem(1), mode7_payload, 1);
    ASSERT_TRUE(accepted(modem(0), 1));
    ASSERT_TRUE(accepted(modem(1), 1));
    // 5 values + roll, 1 value + roll.
    ASSERT_TRUE(publications.wait_for(8)) << m_service.log().right(3000).toStdString();

    const QList<QPair<QString, double>> meter5{{"volume", 12.345},
                                               {"flow_temperature", 56.8},
                                               {"volume.s1", 10},
                                               {"energy", 1000000},
                                               {"battery_lifetime", 31536000}};
    EXPECT_EQ(published(publications, modem(0)), meter5);
    EXPECT_EQ(published(publications, modem(1)), (QList<QPair<QString, double>>{{"energy", 100000000}}));

    const QJsonObject values = call(
        "get_eav_value", QJsonObject{{"modem_id", ids({modem(0), modem(1)})}, {"to", e2e::detected_at + 10}});
    QList<QPair<QString, double>> stored5;
    for (const QJsonValue& v : values.value(key_of(modem(0))).toArray()) {
        stored5.append({v.toObject().value("obis_code").toString(), v.toObject().value("value").toDouble()});
    }
    EXPECT_EQ(stored5.size(), 5);
    for (const auto& expected : meter5) {
        EXPECT_TRUE(stored5.contains(expected)) << expected.first.toStdString();
    }
    const QJsonArray stored7 = values.value(key_of(modem(1))).toArray();
    ASSERT_EQ(stored7.size(), 1);
    EXPECT_DOUBLE_EQ(stored7[0].toObject().value("value").toDouble(), 100000000);

    // The decoded records come back decrypted from the stored (encrypted) payload.
    const QJsonObject roll = call("get_roll_extract", QJsonObject{{"modem_id", ids({modem(1)})}});
    const QJsonObject message = roll.value(key_of(modem(1))).toArray().first().toObject();
    EXPECT_EQ(message.value("parse_status").toString(), "parsed");
    EXPECT_TRUE(message.value("data").toObject().value("decrypted").toBool());
    EXPECT_EQ(message.value("payload").toString(), mode7_payload);

    // Commands that show a modem: none shows its key.
    call("device", QJsonObject{{"modem_id", ids({modem(0), modem(1)})}});
    call("get_ids", QJsonObject{{"hw_type", "X"}, {"protocol", "proto7"}});
    call("custom_request", QJsonObject{{"type", "state"}, {"modem_id", ids({modem(0), modem(1)})}});
    call("get_roll", QJsonObject{{"modem_id", ids({modem(0), modem(1)})}, {"to", 2000000000}});
    const QByteArray said = everything_said(publications);
    EXPECT_EQ(said.indexOf(mode5_key), -1);
    EXPECT_EQ(said.indexOf(mode7_key), -1);
}

TEST_F(MbusEncrypted, MissingAndWrongKeysAreToldApartStoredAndLoggedOncePerModem) {
    e2e::probe publications({client("meter") + ".#"});
    ASSERT_TRUE(publications.wait_ready());
    for (int i = 1; i <= 2; ++i) {
        publish_uplink(modem(2), mode5_payload, i);
        publish_uplink(modem(3), mode5_payload, i);
    }
    ASSERT_TRUE(accepted(modem(2), 2));
    ASSERT_TRUE(accepted(modem(3), 2));

    const QJsonObject roll =
        call("get_roll", QJsonObject{{"modem_id", ids({modem(2), modem(3)})}, {"to", 2000000000}});
    const QJsonArray keyless = roll.value(key_of(modem(2))).toArray();
    const QJsonArray wrong = roll.value(key_of(modem(3))).toArray();
    ASSERT_EQ(keyless.size(), 2);
    ASSERT_EQ(wrong.size(), 2);
    EXPECT_EQ(keyless[0].toObject().value("parse_status").toString(), "encrypted");
    EXPECT_EQ(wrong[0].toObject().value("parse_status").toString(), "decryption failed");
    EXPECT_EQ(wrong[1].toObject().value("payload").toString(), mode5_payload);
    EXPECT_EQ(call("get_eav_value",
                   QJsonObject{{"modem_id", ids({modem(2), modem(3)})}, {"to", e2e::detected_at + 10}}),
              QJsonObject());

    const QString log = m_service.log();
    const QRegularExpression missing(
        QString("Warning .*mbus: modem %1: encrypted with security mode 5 and the device registry has no "
                "\"aes_key\"")
            .arg(modem(2)));
    const QRegularExpression failed(
        QString("Warning .*mbus: modem %1: security mode 5: the decrypted data does not begin with 2F 2F")
            .arg(modem(3)));
    EXPECT_EQ(log.count(missing), 1) << log.right(3000).toStdString();
    EXPECT_EQ(log.count(failed), 1) << log.right(3000).toStdString();
    EXPECT_EQ(everything_said(publications).indexOf(wrong_key), -1);
}

}  // namespace
