// The simulated meters: their payloads decode with the M-Bus decoder into the
// quantities the meters meant, counters only grow, values stay plausible, and a seed
// gives the same messages every time.
#include <gtest/gtest.h>

#include <QJsonObject>
#include <QSet>

#include "decoder.h"
#include "eav.h"
#include "mbus_writer.h"
#include "meter_fleet.h"

namespace {

const QDateTime winter_start = QDateTime(QDate(2024, 1, 10), QTime(6, 0), Qt::UTC);

// obis_code -> value, as the driver stores them.
QMap<QString, double> decoded_values(const QJsonObject& uplink, mbus::decode_result* out = nullptr) {
    const mbus::decode_result decoded =
        mbus::decode(QByteArray::fromHex(uplink["payload"].toString().toLatin1()));
    EXPECT_EQ(decoded.status, "parsed");
    mbus::message_context ctx;
    ctx.modem_id = uplink["modem_id"].toInt();
    ctx.time_detected = QDateTime::fromSecsSinceEpoch(uplink["time_detected"].toInt(), Qt::UTC);
    ctx.tag = "mbus";
    QMap<QString, double> values;
    for (const model::dev_value& v : mbus::to_values(decoded, ctx)) {
        EXPECT_FALSE(values.contains(v.obis_code)) << v.obis_code.toStdString();
        values[v.obis_code] = v.value.toDouble();
    }
    if (out) {
        *out = decoded;
    }
    return values;
}

void expect_same(const QMap<QString, double>& actual, const QMap<QString, double>& expected) {
    EXPECT_EQ(actual.keys(), expected.keys());
    for (auto it = expected.begin(); it != expected.end(); ++it) {
        EXPECT_NEAR(actual.value(it.key()), it.value(), 1e-9 * std::max(1.0, std::abs(it.value())))
            << it.key().toStdString();
    }
}

TEST(NetsimWriter, RecordsDecodeAsWritten) {
    netsim::mbus_writer w;
    w.no_header()
        .integer(QByteArray(1, char(0x13)), 12345, 4)
        .bcd(QByteArray(1, char(0x06)), 87654321, 8, 1)
        .integer(QByteArray(1, char(0x5A)), -15, 2)
        .date(2024, 3, 15, 1)
        .date_time(2031, 12, 31, 23, 59);
    EXPECT_EQ(w.bytes().toHex().toStdString(),
              "780413393000004c062143658702"
              "5af1ff426c0f33046d3b17ff3c");
    const mbus::decode_result r = mbus::decode(w.bytes());
    ASSERT_EQ(r.status, "parsed");
    ASSERT_EQ(r.records.size(), 5u);
    EXPECT_DOUBLE_EQ(r.records[0].value.toDouble(), 12.345);
    EXPECT_DOUBLE_EQ(r.records[1].value.toDouble(), 87654321000.0);
    EXPECT_EQ(mbus::obis_code(r.records[1]), "energy.s1");
    EXPECT_DOUBLE_EQ(r.records[2].value.toDouble(), -1.5);
    EXPECT_EQ(r.records[3].value.toDateTime(), QDateTime(QDate(2024, 3, 15), QTime(0, 0), Qt::UTC));
    EXPECT_EQ(r.records[4].value.toDateTime(), QDateTime(QDate(2031, 12, 31), QTime(23, 59), Qt::UTC));
}

TEST(NetsimWriter, RejectsCodingsItCannotWrite) {
    netsim::mbus_writer w;
    EXPECT_THROW(w.integer(QByteArray(1, char(0x13)), 1, 5), std::invalid_argument);
    EXPECT_THROW(w.bcd(QByteArray(1, char(0x13)), 1, 3), std::invalid_argument);
    EXPECT_THROW(w.integer(QByteArray(1, char(0x13)), 1, 4, 2), std::invalid_argument);
}

TEST(NetsimFleet, HeatMeterPayloadCarriesItsReadings) {
    netsim::meter_fleet fleet(4, 7);
    for (int index : {0, 2}) {
        ASSERT_EQ(fleet.kind(index), netsim::meter_kind::heat);
        mbus::decode_result decoded;
        const QJsonObject uplink = fleet.next_uplink(index, winter_start);
        const QMap<QString, double> values = decoded_values(uplink, &decoded);
        EXPECT_EQ(decoded.header.kind, "short");
        EXPECT_EQ(decoded.header.ci, 0x7A);
        EXPECT_EQ(decoded.header.status, 0);
        EXPECT_GE(decoded.records.size(), 10u);
        expect_same(values, fleet.last_readings(index));
        for (const char* q :
             {"energy", "volume", "power", "volume_flow", "flow_temperature", "return_temperature",
              "temperature_difference", "operating_time", "energy.s1"}) {
            EXPECT_TRUE(values.contains(q)) << q;
        }
        // A cold January morning: the heating runs.
        EXPECT_GT(values["power"], 1000.0);
        EXPECT_GT(values["flow_temperature"], 40.0);
        EXPECT_LT(values["flow_temperature"], 80.0);
        EXPECT_LT(values["return_temperature"], values["flow_temperature"]);
        EXPECT_NEAR(values["temperature_difference"],
                    values["flow_temperature"] - values["return_temperature"], 1e-6);
        EXPECT_LE(values["energy.s1"], values["energy"]);
    }
}

TEST(NetsimFleet, WaterMeterPayloadCarriesItsReadings) {
    netsim::meter_fleet fleet(8, 11);
    QSet<QString> temperatures;
    for (int index : {1, 3, 5, 7}) {
        ASSERT_EQ(fleet.kind(index), netsim::meter_kind::water);
        mbus::decode_result decoded;
        const QMap<QString, double> values = decoded_values(fleet.next_uplink(index, winter_start), &decoded);
        EXPECT_EQ(decoded.header.ci, 0x7A);
        expect_same(values, fleet.last_readings(index));
        EXPECT_TRUE(values.contains("volume"));
        EXPECT_TRUE(values.contains("on_time"));
        EXPECT_TRUE(values.contains("volume_flow"));
        const QString temperature =
            values.contains("flow_temperature") ? "flow_temperature" : "external_temperature";
        ASSERT_TRUE(values.contains(temperature));
        temperatures.insert(temperature);
        EXPECT_GT(values[temperature], 0.0);
        EXPECT_LT(values[temperature], 30.0);
    }
    EXPECT_FALSE(temperatures.isEmpty());
}

TEST(NetsimFleet, AccessNumberAndIteratorCount) {
    netsim::meter_fleet fleet(1, 3);
    int previous_access = -1;
    for (int i = 0; i < 300; ++i) {
        mbus::decode_result decoded;
        const QJsonObject uplink = fleet.next_uplink(0, winter_start.addSecs(900 * i));
        decoded_values(uplink, &decoded);
        EXPECT_EQ(uplink["iterator"].toInt(), i + 1);
        if (previous_access >= 0) {
            EXPECT_EQ(decoded.header.access_number, (previous_access + 1) % 256);
        }
        previous_access = decoded.header.access_number;
    }
    EXPECT_EQ(fleet.heartbeat(0, winter_start.addSecs(900 * 300))["iterator"].toInt(), 301);
}

TEST(NetsimFleet, CountersOnlyGrowAndConsumptionIsPlausible) {
    netsim::meter_fleet fleet(2, 5);
    const char* heat_counters[] = {"energy", "volume", "operating_time"};
    const char* water_counters[] = {"volume", "on_time"};
    QMap<QString, double> first[2];
    QMap<QString, double> last[2];
    const int steps = 4 * 24 * 14;  // two weeks, every 15 minutes
    for (int i = 0; i <= steps; ++i) {
        const QDateTime t = winter_start.addSecs(900 * i);
        for (int index : {0, 1}) {
            const QMap<QString, double> values = decoded_values(fleet.next_uplink(index, t));
            if (i == 0) {
                first[index] = values;
            } else {
                for (const char* c :
                     index == 0
                         ? std::vector<const char*>(std::begin(heat_counters), std::end(heat_counters))
                         : std::vector<const char*>(std::begin(water_counters), std::end(water_counters))) {
                    ASSERT_GE(values[c], last[index][c]) << c << " at step " << i;
                }
            }
            last[index] = values;
        }
    }
    // Two winter weeks of a 5-15 kW building: some MWh, never more than full load.
    const double energy = last[0]["energy"] - first[0]["energy"];
    EXPECT_GT(energy, 5000.0 * 24 * 14 * 0.3);
    EXPECT_LT(energy, 15000.0 * 24 * 14 * 1.3);
    EXPECT_GT(last[0]["volume"], first[0]["volume"]);
    EXPECT_NEAR(last[0]["operating_time"] - first[0]["operating_time"], 14 * 86400.0, 3600.0);
    // A household uses 0.1 to 0.6 m3 a day.
    const double water = last[1]["volume"] - first[1]["volume"];
    EXPECT_GT(water, 14 * 0.05);
    EXPECT_LT(water, 14 * 1.0);
    EXPECT_NEAR(last[1]["on_time"] - first[1]["on_time"], 14 * 86400.0, 3600.0);
}

TEST(NetsimFleet, DueDateValueFollowsTheMonth) {
    netsim::meter_fleet fleet(1, 9);
    fleet.next_uplink(0, QDateTime(QDate(2024, 1, 20), QTime(12, 0), Qt::UTC));
    const QMap<QString, double> before = fleet.last_readings(0);
    const QJsonObject uplink = fleet.next_uplink(0, QDateTime(QDate(2024, 2, 3), QTime(12, 0), Qt::UTC));
    mbus::decode_result decoded;
    const QMap<QString, double> after = decoded_values(uplink, &decoded);
    // The February due-date reading lies between the two readings.
    EXPECT_GT(after["energy.s1"], before["energy"]);
    EXPECT_LT(after["energy.s1"], after["energy"]);
    bool found = false;
    for (const mbus::record& r : decoded.records) {
        if (r.info.quantity == "date" && r.storage == 1) {
            EXPECT_EQ(r.value.toDateTime(), QDateTime(QDate(2024, 2, 1), QTime(0, 0), Qt::UTC));
            found = true;
        }
    }
    EXPECT_TRUE(found);
}

TEST(NetsimFleet, TimeGoingBackChangesNoCounter) {
    netsim::meter_fleet fleet(1, 2);
    fleet.next_uplink(0, winter_start.addDays(2));
    const double energy = fleet.last_readings(0)["energy"];
    fleet.next_uplink(0, winter_start);
    EXPECT_EQ(fleet.last_readings(0)["energy"], energy);
}

TEST(NetsimFleet, UplinksLessThanASecondApart) {
    netsim::meter_fleet fleet(2, 4);
    for (int index : {0, 1}) {
        fleet.next_uplink(index, winter_start);
        const QMap<QString, double> first = fleet.last_readings(index);
        for (int i = 1; i <= 20; ++i) {
            fleet.next_uplink(index, winter_start.addMSecs(300 * i));
        }
        const QString counter = index == 0 ? "operating_time" : "on_time";
        EXPECT_EQ(fleet.last_readings(index)[counter], first[counter]);
        fleet.next_uplink(index, winter_start.addSecs(2 * 3600));
        EXPECT_EQ(fleet.last_readings(index)[counter], first[counter] + 2 * 3600.0);
    }
}

TEST(NetsimFleet, SameSeedSameMessagesOtherSeedOthers) {
    netsim::meter_fleet a(3, 42);
    netsim::meter_fleet b(3, 42);
    netsim::meter_fleet c(3, 43);
    bool differs = false;
    for (int i = 0; i < 50; ++i) {
        const QDateTime t = winter_start.addSecs(600 * i);
        for (int index = 0; index < 3; ++index) {
            const QJsonObject ua = a.next_uplink(index, t);
            EXPECT_EQ(ua, b.next_uplink(index, t));
            differs = differs || ua["payload"] != c.next_uplink(index, t)["payload"];
        }
        EXPECT_EQ(a.heartbeat(i % 3, t), b.heartbeat(i % 3, t));
        c.heartbeat(i % 3, t);
    }
    EXPECT_TRUE(differs);
}

TEST(NetsimFleet, UplinkAndHeartbeatMessages) {
    netsim::meter_fleet fleet(2, 1, 500);
    EXPECT_EQ(fleet.modem_id(1), 501);
    EXPECT_EQ(fleet.index_of(501), 1);
    EXPECT_EQ(fleet.index_of(499), -1);
    EXPECT_EQ(fleet.index_of(502), -1);
    EXPECT_THROW(fleet.next_uplink(2, winter_start), std::out_of_range);

    const QJsonObject ul = fleet.next_uplink(0, winter_start);
    EXPECT_EQ(ul["msg_type"].toString(), "ul_app");
    EXPECT_EQ(ul["modem_id"].toInt(), 500);
    EXPECT_EQ(ul["protocol"].toString(), "proto7");
    EXPECT_EQ(ul["hw_type"].toString(), "mbus-heat");
    EXPECT_EQ(ul["time_detected"].toInt(), winter_start.toSecsSinceEpoch());
    EXPECT_EQ(ul["payload"].toString(), ul["payload"].toString().toLower());
    for (const char* key :
         {"station_id", "phy", "rssi", "snr", "iterator", "time_saved", "bs_tz", "tz_mismatch", "dl_mode",
          "dl_phy", "last_dl_bs", "last_dl_bs_aver_busyness", "last_dl_bs_busyness", "last_success_dl_ts"}) {
        EXPECT_TRUE(ul.contains(key)) << key;
    }
    EXPECT_EQ(fleet.next_uplink(1, winter_start)["hw_type"].toString(), "mbus-water");

    fleet.set_protocol("proto9");
    fleet.set_hw_type("X");
    const QJsonObject hb = fleet.heartbeat(1, winter_start);
    EXPECT_EQ(hb["msg_type"].toString(), "ul_hb");
    EXPECT_EQ(hb["modem_id"].toInt(), 501);
    EXPECT_EQ(hb["protocol"].toString(), "proto9");
    EXPECT_EQ(hb["hw_type"].toString(), "X");
    EXPECT_EQ(hb["iterator"].toInt(), 2);
    EXPECT_TRUE(hb["temperature"].isDouble());
    EXPECT_GT(hb["voltage"].toDouble(), 3.0);
    EXPECT_LT(hb["voltage"].toDouble(), 3.7);
}

// With three instances, position 1 owns modems 1, 4, 7 ...; the key names position and
// count in that order, as the instances bind their queues.
TEST(NetsimFleet, BalancerRoutingKeyNamesTheOwnerAmongTheInstances) {
    EXPECT_EQ(netsim::balancer_routing_key(4, 3, "marl2", "proto7"), "balancer.marl2.proto7.1.3");
    EXPECT_EQ(netsim::balancer_routing_key(3, 3, "marl2", "proto7"), "balancer.marl2.proto7.0.3");
    EXPECT_EQ(netsim::balancer_routing_key(5, 3, "a", "p", "lb"), "lb.a.p.2.3");
    EXPECT_EQ(netsim::balancer_routing_key(9, 1, "marl2", "proto7"), "balancer.marl2.proto7.0.1");
    EXPECT_TRUE(netsim::balancer_routing_key(-2, 3, "marl2", "proto7").isEmpty());
    EXPECT_TRUE(netsim::balancer_routing_key(4, 0, "marl2", "proto7").isEmpty());
}

TEST(NetsimFleet, UplinkRoutingKey) {
    EXPECT_EQ(netsim::uplink_routing_key(7, "marl2", "proto7"), "nc.0.ul.marl2.proto7.7");
    EXPECT_EQ(netsim::uplink_routing_key(12, "a", "p", "up"), "nc.0.up.a.p.12");
}

}  // namespace
