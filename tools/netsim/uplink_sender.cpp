#include "uplink_sender.h"

#include <QJsonDocument>
#include <cmath>

#include "amqp/rabbit_publisher.h"

namespace {

// Uplinks sent in one turn of the event loop at most, so that commands and signals
// are still served while sending.
constexpr qint64 max_burst = 200;
constexpr int rate_tick_ms = 20;

}  // namespace

uplink_sender::uplink_sender(const settings& config, rabbit_publisher_impl& publisher,
                             uplink_history& history, netsim_counters& counters, QObject* parent)
    : QObject(parent),
      m_config(config),
      m_publisher(publisher),
      m_history(history),
      m_counters(counters),
      m_fleet(config.modems, config.seed, config.first_modem),
      m_sent_per_modem(size_t(config.modems), 0) {
    m_fleet.set_protocol(config.protocol);
    m_fleet.set_hw_type(config.hw_type);
    connect(&m_timer, &QTimer::timeout, this, &uplink_sender::tick);
}

void uplink_sender::start() {
    if (m_config.modems == 0 || m_config.count == 0) {
        if (m_config.count >= 0) {
            finish();
        }
        return;
    }
    m_clock.start();
    m_timer.start(m_config.fast ? 0 : rate_tick_ms);
    tick();
}

void uplink_sender::stop() {
    m_timer.stop();
}

void uplink_sender::finish() {
    m_timer.stop();
    if (!m_done) {
        m_done = true;
        Q_EMIT done();
    }
}

void uplink_sender::tick() {
    qint64 due = m_sent + max_burst;
    if (!m_config.fast) {
        // One at once, then as many as the rate allows by now.
        due = std::min(due, qint64(std::floor(m_clock.elapsed() * m_config.rate / 1000.0)) + 1);
    }
    while (!m_done && m_sent < due) {
        if (!send_next()) {
            break;
        }
    }
}

bool uplink_sender::send_next() {
    if (m_config.count >= 0 && m_sent >= m_config.count) {
        finish();
        return false;
    }
    const int index = int(m_sent % m_config.modems);
    const QDateTime now = QDateTime::currentDateTimeUtc();
    const int modem_id = m_fleet.modem_id(index);
    const QJsonObject uplink = m_fleet.next_uplink(index, now);
    ++m_sent;
    if (publish(uplink, modem_id)) {
        ++m_counters.uplinks;
        m_history.add(modem_id, uplink["time_detected"].toVariant().toLongLong(), uplink);
    }
    const int of_modem = ++m_sent_per_modem[size_t(index)];
    if (m_config.heartbeat_every > 0 && of_modem % m_config.heartbeat_every == 0) {
        if (publish(m_fleet.heartbeat(index, now), modem_id)) {
            ++m_counters.heartbeats;
        }
    }
    if (m_config.count >= 0 && m_sent >= m_config.count) {
        finish();
    }
    return true;
}

bool uplink_sender::publish(const QJsonObject& message, int modem_id) {
    // A link that is down is waited for up to a second; what still finds it down is lost.
    const QString key = m_config.balancer > 0
                            ? netsim::balancer_routing_key(modem_id, m_config.balancer, m_config.instance,
                                                           m_config.protocol, m_config.balancer_key)
                            : netsim::uplink_routing_key(modem_id, m_config.instance, m_config.protocol,
                                                         m_config.ul_route_key);
    m_publisher.publish_string(QJsonDocument(message).toJson(QJsonDocument::Compact), key.toLatin1(),
                               "text/plain");
    if (!m_publisher.is_connected()) {
        ++m_counters.dropped;
        return false;
    }
    return true;
}
