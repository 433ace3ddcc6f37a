#include "bench/uplink_feed.h"

#include <QDateTime>

#include "tools/netsim/meter_fleet.h"

namespace bench {

namespace {
constexpr uint32_t fleet_seed = 7;
constexpr int reading_interval_s = 900;
}  // namespace

uplink_feed::uplink_feed(int modems, int first_modem)
    : m_fleet(std::make_unique<netsim::meter_fleet>(qMax(1, modems), fleet_seed, first_modem)),
      // Whole days back, so that every feed of a run starts at the same time.
      m_start_time((QDateTime::currentSecsSinceEpoch() / 86400 - 30) * 86400) {
    m_fleet->set_protocol(protocol());
}

uplink_feed::~uplink_feed() = default;

QJsonObject uplink_feed::next() {
    const int modems = m_fleet->size();
    const int index = int(m_sent % uint64_t(modems));
    const int64_t round = int64_t(m_sent / uint64_t(modems));
    ++m_sent;
    const int64_t seconds = m_start_time + round * reading_interval_s + index % reading_interval_s;
    return m_fleet->next_uplink(index, QDateTime::fromSecsSinceEpoch(seconds, Qt::UTC));
}

QString uplink_feed::routing_key(const QJsonObject& uplink, const QString& route_key) {
    QStringList parts =
        netsim::uplink_routing_key(uplink.value("modem_id").toInt(), instance(), protocol()).split('.');
    parts[2] = route_key;
    return parts.join('.');
}

QList<int> uplink_feed::modem_ids() const {
    QList<int> ids;
    for (int i = 0; i < m_fleet->size(); ++i) {
        ids.append(m_fleet->modem_id(i));
    }
    return ids;
}

QString uplink_feed::hw_type(int modem) const {
    return m_fleet->hw_type(m_fleet->index_of(modem));
}

}  // namespace bench
