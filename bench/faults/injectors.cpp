#include "bench/faults/injectors.h"

#include <QElapsedTimer>
#include <QJsonObject>
#include <QThread>
#include <algorithm>

#include "bench/faults/ledger.h"
#include "bench/service_instance.h"

namespace faults {

namespace {
// Pages the store may grow by once limited: a few uplinks' worth.
constexpr int64_t store_margin_pages = 16;
}  // namespace

injectors::injectors(const target& where, amqp::broker_link& admin, broker_control& control,
                     fault_tally& tally, QStringList& problems)
    : m_target(where), m_admin(admin), m_control(control), m_tally(tally), m_problems(problems) {
    m_fault_clock.start();
}

void injectors::note(const QString& problem) {
    m_problems << problem;
}

bool injectors::wait_consuming(const QString& after, int timeout_ms) {
    QElapsedTimer clock;
    clock.start();
    for (;;) {
        uint32_t messages = 0;
        uint32_t consumers = 0;
        if (m_admin.queue_counts(m_target.uplink_queue, messages, consumers) && consumers > 0) {
            m_tally.longest_outage_s = std::max(m_tally.longest_outage_s, m_fault_clock.elapsed() / 1000.0);
            return true;
        }
        if (!m_target.service->running()) {
            note("the service is not running after " + after);
            return false;
        }
        if (clock.elapsed() > timeout_ms) {
            note(QString("no consumer on the uplink queue %1 s after %2").arg(timeout_ms / 1000).arg(after));
            return false;
        }
        QThread::msleep(100);
    }
}

void injectors::wait_consumer_gone(int timeout_ms) {
    QElapsedTimer clock;
    clock.start();
    uint32_t messages = 0;
    uint32_t consumers = 1;
    while (clock.elapsed() < timeout_ms && m_admin.queue_counts(m_target.uplink_queue, messages, consumers) &&
           consumers > 0) {
        QThread::msleep(50);
    }
}

void injectors::restart_broker() {
    if (!m_control.restart()) {
        note("broker restart failed: " + m_control.error());
        return;
    }
    ++m_tally.broker_restarts;
    begin_fault();
    m_admin.close();  // its connection died with the broker application
    wait_consuming("a broker restart");
}

void injectors::close_connections() {
    QStringList connections;
    if (!m_control.connections_from(tcp_ports_of(m_target.service->pid()), connections)) {
        note("listing the broker's connections failed: " + m_control.error());
        return;
    }
    if (connections.isEmpty()) {
        note("no connection of the service found to close");
        return;
    }
    for (const QString& connection : connections) {
        if (m_control.close_connection(connection, "quillon-faults: forced close")) {
            ++m_tally.connections_closed;
        } else {
            note("closing " + connection + " failed: " + m_control.error());
        }
    }
    ++m_tally.close_rounds;
    begin_fault();
    // No wait for the consumer to go: each close is done when rabbitmqctl returns, and the
    // service may be back on its uplink queue before the round's last close.
    wait_consuming("forced closes");
}

void injectors::kill_service() {
    m_target.service->kill_now();
    ++m_tally.kills;
    begin_fault();
    wait_consumer_gone();
    if (!m_target.service->start()) {
        note("the service did not start again after kill -9");
        return;
    }
    wait_consuming("kill -9 and a new start");
}

void injectors::drop_exchange() {
    if (!m_admin.delete_exchange(m_target.client_exchange)) {
        note("deleting the client exchange failed: " + m_admin.error());
        return;
    }
    // Long enough for the service to publish into the void a few times.
    QThread::msleep(300);
    if (!m_admin.declare_exchange(m_target.client_exchange, "topic")) {
        note("declaring the client exchange again failed: " + m_admin.error());
        return;
    }
    ++m_tally.exchange_drops;
    begin_fault();
    wait_consuming("a client exchange drop");
}

void injectors::limit_store(bool full) {
    const int code = m_target.service->stop();
    begin_fault();
    if (code != 0) {
        note(QString("the service's orderly stop for the store limit ended with %1").arg(code));
    }
    QJsonObject extra;
    if (full) {
        const int64_t pages = store_pages(m_target.store_path);
        if (pages <= 0) {
            note("cannot read the store's page count; the store is not limited");
        } else {
            m_tally.store_limit_pages = pages + store_margin_pages;
            extra["max_page_count"] = double(m_tally.store_limit_pages);
        }
    }
    m_target.service->set_store_config(extra);
    ++m_tally.store_restarts;
    wait_consumer_gone();
    if (!m_target.service->start()) {
        note("the service did not start again with the store limit changed");
        return;
    }
    wait_consuming(full ? "limiting the store" : "lifting the store's limit");
}

void injectors::stop_node(int k) {
    m_tally.leader_before = m_control.queue_leader(m_target.uplink_queue);
    if (!m_control.cluster_script({"stop-node", QString::number(k)})) {
        note(QString("stopping cluster node %1 failed: ").arg(k) + m_control.error());
        return;
    }
    ++m_tally.node_stops;
    begin_fault();
    wait_consuming(QString("cluster node %1 stopped").arg(k));
    m_tally.leader_after = m_control.queue_leader(m_target.uplink_queue);
}

void injectors::start_node(int k) {
    if (!m_control.cluster_script({"start-node", QString::number(k)})) {
        note(QString("starting cluster node %1 again failed: ").arg(k) + m_control.error());
        return;
    }
    begin_fault();
    wait_consuming(QString("cluster node %1 started again").arg(k));
}

}  // namespace faults
