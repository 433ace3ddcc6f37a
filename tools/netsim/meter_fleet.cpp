#include "meter_fleet.h"

#include <algorithm>
#include <cmath>
#include <stdexcept>

namespace netsim {

namespace {

double rounded(double value, double step) {
    return std::round(value / step) * step;
}

}  // namespace

QString uplink_routing_key(int modem_id, const QString& instance, const QString& protocol,
                           const QString& route_key) {
    return QString("nc.0.%1.%2.%3.%4").arg(route_key, instance, protocol, QString::number(modem_id));
}

QString balancer_routing_key(int modem_id, int count, const QString& instance, const QString& protocol,
                             const QString& balancer_key) {
    if (count < 1 || modem_id < 0) {
        return QString();
    }
    return QString("%1.%2.%3.%4.%5")
        .arg(balancer_key, instance, protocol, QString::number(modem_id % count), QString::number(count));
}

struct meter_fleet::modem {
    modem(int id, meter_kind kind, uint32_t seed, int index)
        : modem_id(id), random(seed, uint32_t(index) + 1000u), meter(make_meter(kind, random)) {
        access_number = uint8_t(random.uniform() * 256.0);
        station_id = 1000 + int(random.uniform() * 40.0);
        rssi = random.uniform(-125.0, -95.0);
        snr = random.uniform(3.0, 20.0);
        battery_v = random.uniform(3.55, 3.66);
    }

    int modem_id;
    sim_random random;
    std::unique_ptr<meter_model> meter;
    QMap<QString, double> readings;
    int iterator = 0;
    uint8_t access_number = 0;
    int station_id = 0;
    double rssi = 0;
    double snr = 0;
    double battery_v = 0;
};

meter_fleet::meter_fleet(int modems, uint32_t seed, int first_modem) : m_first_modem(first_modem) {
    if (modems < 0) {
        throw std::invalid_argument("meter_fleet: negative number of modems");
    }
    m_modems.reserve(size_t(modems));
    for (int i = 0; i < modems; ++i) {
        const meter_kind kind = i % 2 == 0 ? meter_kind::heat : meter_kind::water;
        m_modems.push_back(std::make_unique<modem>(first_modem + i, kind, seed, i));
    }
}

meter_fleet::~meter_fleet() = default;

meter_fleet::modem& meter_fleet::at(int index) {
    if (index < 0 || index >= size()) {
        throw std::out_of_range("meter_fleet: no modem at index " + std::to_string(index));
    }
    return *m_modems[size_t(index)];
}

const meter_fleet::modem& meter_fleet::at(int index) const {
    return const_cast<meter_fleet*>(this)->at(index);
}

int meter_fleet::modem_id(int index) const {
    return at(index).modem_id;
}

int meter_fleet::index_of(int modem_id) const {
    const int index = modem_id - m_first_modem;
    return index >= 0 && index < size() ? index : -1;
}

meter_kind meter_fleet::kind(int index) const {
    return at(index).meter->kind();
}

QString meter_fleet::hw_type(int index) const {
    if (!m_hw_type.isEmpty()) {
        return m_hw_type;
    }
    return "mbus-" + meter_kind_name(kind(index));
}

const QMap<QString, double>& meter_fleet::last_readings(int index) const {
    return at(index).readings;
}

QJsonObject meter_fleet::radio_fields(modem& m, int index, const QDateTime& t) {
    // Mostly the home station; now and then a neighbour hears the modem better.
    const int station = m.random.uniform() < 0.9 ? m.station_id : m.station_id + 1;
    const qint64 seconds = t.toSecsSinceEpoch();
    ++m.iterator;
    return QJsonObject{{"modem_id", m.modem_id},
                       {"station_id", station},
                       {"phy", "UL_A"},
                       {"rssi", int(std::lround(m.rssi + m.random.normal(0.0, 2.0)))},
                       {"snr", int(std::lround(std::max(0.0, m.snr + m.random.normal(0.0, 1.5))))},
                       {"iterator", m.iterator},
                       {"time_detected", seconds},
                       {"time_saved", seconds},
                       {"hw_type", hw_type(index)},
                       {"protocol", m_protocol},
                       {"bs_tz", 0}};
}

QJsonObject meter_fleet::next_uplink(int index, const QDateTime& t) {
    modem& m = at(index);
    m.meter->advance(t);
    ++m.access_number;
    const QByteArray payload = m.meter->encode(m.access_number, t, &m.readings);
    QJsonObject message = radio_fields(m, index, t);
    message["msg_type"] = "ul_app";
    message["payload"] = QString::fromLatin1(payload.toHex());
    message["tz_mismatch"] = false;
    message["dl_mode"] = "A";
    message["dl_phy"] = "DL_A";
    message["last_dl_bs"] = m.station_id;
    message["last_dl_bs_aver_busyness"] = rounded(m.random.uniform(0.05, 0.3), 0.01);
    message["last_dl_bs_busyness"] = rounded(m.random.uniform(0.0, 0.5), 0.01);
    message["last_success_dl_ts"] = 0;
    return message;
}

QJsonObject meter_fleet::heartbeat(int index, const QDateTime& t) {
    modem& m = at(index);
    m.battery_v = std::max(3.0, m.battery_v - 0.00005);
    QJsonObject message = radio_fields(m, index, t);
    message["msg_type"] = "ul_hb";
    message["payload"] = "";
    // The modem sits indoors, a little warmer than the air outside.
    message["temperature"] =
        rounded(15.0 + 0.3 * (outdoor_temperature(t) - 8.0) + m.random.normal(0.0, 0.3), 0.1);
    message["voltage"] = rounded(m.battery_v + m.random.normal(0.0, 0.005), 0.01);
    return message;
}

}  // namespace netsim
