#pragma once

#include <QDateTime>
#include <QJsonObject>
#include <QString>
#include <memory>
#include <vector>

#include "meter_model.h"

namespace netsim {

// "nc.0.ul.<instance>.<protocol>.<modem>": the key on which the network server
// publishes a modem's uplinks (and its downlink reports). A service configured with
// another R_UL_ROUTE_KEY binds that word in place of "ul".
QString uplink_routing_key(int modem_id, const QString& instance, const QString& protocol,
                           const QString& route_key = QStringLiteral("ul"));

// "<balancer key>.<instance>.<protocol>.<position>.<count>": the key of the service
// instance that owns the modem when `count` instances share the modems (position: the
// modem id's remainder by the count), as the balanced instances bind their queues. An id
// below 0 belongs to no instance: empty.
QString balancer_routing_key(int modem_id, int count, const QString& instance, const QString& protocol,
                             const QString& balancer_key = QStringLiteral("balancer"));

// A fleet of simulated modems, each with one meter: modem_id = first_modem + index;
// even indexes carry heat meters, odd ones water meters. Everything is reproducible
// from the seed: the same calls with the same times give the same messages.
class meter_fleet {
public:
    meter_fleet(int modems, uint32_t seed, int first_modem = 1);
    ~meter_fleet();
    meter_fleet(const meter_fleet&) = delete;
    meter_fleet& operator=(const meter_fleet&) = delete;

    int size() const { return int(m_modems.size()); }
    int modem_id(int index) const;
    // The index of a modem id, or -1.
    int index_of(int modem_id) const;
    meter_kind kind(int index) const;

    // "protocol" of the messages (default "proto7").
    void set_protocol(const QString& protocol) { m_protocol = protocol; }
    const QString& protocol() const { return m_protocol; }
    // "hw_type" of every modem; empty (the default) gives "mbus-heat" or "mbus-water"
    // by meter type.
    void set_hw_type(const QString& hw_type) { m_hw_type = hw_type; }
    QString hw_type(int index) const;

    // The modem's next application uplink at time t: the full "ul_app" message with the
    // meter's M-Bus payload. Advances the meter, its access number and the modem's
    // message counter ("iterator").
    QJsonObject next_uplink(int index, const QDateTime& t);
    // What the last uplink of the modem carried: obis_code -> value in base units.
    const QMap<QString, double>& last_readings(int index) const;
    // A "ul_hb" heartbeat of the modem at time t (temperature and battery voltage).
    QJsonObject heartbeat(int index, const QDateTime& t);

private:
    struct modem;
    modem& at(int index);
    const modem& at(int index) const;
    QJsonObject radio_fields(modem& m, int index, const QDateTime& t);

    std::vector<std::unique_ptr<modem>> m_modems;
    int m_first_modem = 1;
    QString m_protocol = "proto7";
    QString m_hw_type;
};

}  // namespace netsim
