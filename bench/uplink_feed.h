#pragma once

#include <QJsonObject>
#include <QList>
#include <QString>
#include <cstdint>
#include <memory>

namespace netsim {
class meter_fleet;
}  // namespace netsim

namespace bench {

// Application uplinks ("ul_app") of a simulated fleet of heat and water meters (M-Bus
// payloads of eight to twelve records) as the network server delivers them. The modems
// take turns, each reading a quarter of an hour after its last; the same fleet
// parameters give the same uplinks, so every consumer of a run gets the same work.
class uplink_feed {
public:
    uplink_feed(int modems, int first_modem);
    ~uplink_feed();

    QJsonObject next();
    // The network server's routing key for the uplink, with the uplink route key of the
    // receiving queue's bindings in place of the usual "ul".
    static QString routing_key(const QJsonObject& uplink, const QString& route_key);
    QList<int> modem_ids() const;
    QString hw_type(int modem) const;
    static QString protocol() { return QStringLiteral("proto7"); }
    static QString instance() { return QStringLiteral("marl2"); }

private:
    std::unique_ptr<netsim::meter_fleet> m_fleet;
    uint64_t m_sent = 0;
    int64_t m_start_time;
};

}  // namespace bench
