#pragma once

#include <QByteArray>
#include <QJsonObject>
#include <QList>
#include <QString>
#include <cstdint>

namespace bench {

// Application uplinks ("ul_app") of a fleet of heat meters as the network server
// delivers them: each payload is an M-Bus telegram (short header, ten data records)
// whose readings advance from one uplink of a modem to the next. The modems take turns.
class uplink_feed {
public:
    uplink_feed(int modems, int first_modem);

    QJsonObject next();
    // The routing key under which the network server publishes the uplink, with the
    // uplink route key of the receiving queue's bindings.
    static QString routing_key(const QJsonObject& uplink, const QString& route_key);
    QList<int> modem_ids() const;
    int first_modem() const { return m_first_modem; }
    static QString hw_type() { return QStringLiteral("heat_meter"); }
    static QString protocol() { return QStringLiteral("proto7"); }

private:
    QByteArray payload(int modem, int round) const;

    int m_modems;
    int m_first_modem;
    uint64_t m_sent = 0;
    int64_t m_start_time;
};

}  // namespace bench
