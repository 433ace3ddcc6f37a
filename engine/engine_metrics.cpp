// What the engine tells the metrics: settled deliveries, broker links, the store's health.
#include <chrono>

#include "amqp/amqp_connection.h"
#include "engine/Engiene.h"
#include "engine/store_timer.h"

namespace {
// An idle store is asked whether it answers at most this often.
constexpr qint64 store_probe_interval_ms = 5000;

void watch(amqp::connection& link, const std::shared_ptr<service_metrics>& metrics,
           service_metrics::amqp_link which, QObject* context) {
    metrics->set_link(which, link.is_connected());
    auto was_up = std::make_shared<bool>(link.is_connected());
    QObject::connect(&link, &amqp::connection::connected, context, [metrics, which, was_up] {
        if (*was_up) {
            metrics->reconnects(which).inc();
        }
        *was_up = true;
        metrics->set_link(which, true);
    });
    QObject::connect(&link, &amqp::connection::disconnected, context,
                     [metrics, which] { metrics->set_link(which, false); });
}
}  // namespace

void Engiene::watchLinks() {
    if (!m_endpoints) {
        return;  // no broker links: the caller's outputs count for themselves
    }
    using link = service_metrics::amqp_link;
    watch(m_endpoints->receiver().transport(), m_metrics, link::uplinks, this);
    watch(m_endpoints->publisher().transport(), m_metrics, link::clients, this);
    watch(m_endpoints->api().receiver_transport(), m_metrics, link::commands_in, this);
    watch(m_endpoints->api().publisher_transport(), m_metrics, link::commands_out, this);
    m_endpoints->publisher().set_counters(&m_metrics->publications(), &m_metrics->publications_dropped());
}

void Engiene::countSettled(const delivery_batch::delivery& delivery) {
    using verdict = service_metrics::uplink_outcome;
    verdict outcome = delivery.verdict;
    if (delivery.accepted) {
        outcome = verdict::acked;
    } else if (!delivery.failure.isEmpty() || outcome == verdict::acked) {
        outcome = verdict::rejected_error;
    }
    m_metrics->count_uplink(delivery.type, outcome);
    const std::chrono::duration<double> took = std::chrono::steady_clock::now() - delivery.received;
    m_metrics->uplink_seconds().observe(took.count());
}

void Engiene::onMetricsTick() {
    if (m_api) {
        m_metrics->pending_commands().set(m_api->pending_count());
    }
    // Handling in progress will tell soon enough whether the store answers.
    if (m_gate.busy() || m_batch.is_open() || m_metrics->ms_since_store_verdict() < store_probe_interval_ms) {
        return;
    }
    probeStore();
}

// A cheap question to the store: a lookup by key that finds nothing, or the state of the
// link to its server.
void Engiene::probeStore() {
    store_timer timed(*m_metrics, service_metrics::store_operation::probe);
    try {
        if (interfaces::IStoreLink* link = m_messages->store_link()) {
            if (link->poll_link() != interfaces::IStoreLink::link_state::up) {
                m_metrics->store_errors().inc();
                m_metrics->set_store_down(link->link_error());
                return;
            }
        } else {
            std::pair<QString, QString> device;
            m_messages->ul().device(device, -1);
        }
        m_metrics->set_store_up();
    } catch (...) {
        m_metrics->store_errors().inc();
        m_metrics->set_store_down(caught_failure::current().message());
    }
}
