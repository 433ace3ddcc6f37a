#include "metrics/service_metrics.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <chrono>

#include "metrics/process_metrics.h"

namespace {

const char* const uplink_types[] = {"ul_app", "ul_hb", "dl_report", "unknown"};
const char* const uplink_outcomes[] = {"acked",          "rejected_not_mine",  "rejected_bad",
                                       "rejected_error", "rejected_heartbeat", "requeued"};
const char* const links[] = {"uplinks", "clients", "commands_in", "commands_out"};
const char* const dl_sources[] = {"api", "queue", "driver"};
const char* const dl_queue_results[] = {"sent", "idle", "error"};
const char* const store_operations[] = {"save_message", "save_records", "modem_state", "commit", "probe"};

// Seconds from half a millisecond to ten seconds.
const std::vector<double> latency_buckets = {0.0005, 0.001, 0.0025, 0.005, 0.01, 0.025, 0.05,
                                             0.1,    0.25,  0.5,    1,     2.5,  5,     10};
const std::vector<double> command_buckets = {0.001, 0.005, 0.01, 0.05, 0.1, 0.5, 1, 5, 10, 30};
const std::vector<double> store_buckets = {0.0001, 0.00025, 0.0005, 0.001, 0.0025, 0.005,
                                           0.01,   0.025,   0.05,   0.1,   0.25,   1};

int64_t steady_ms() {
    return std::chrono::duration_cast<std::chrono::milliseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

template <class E>
std::size_t at(E value) {
    return static_cast<std::size_t>(value);
}

}  // namespace

service_metrics::service_metrics() {
    auto& uplinks = m_registry.add_counter(
        "quillon_uplinks_total",
        "Deliveries from the uplink queue by message type and how they were settled.", {"type", "outcome"});
    m_uplink_family = &uplinks;
    using t = uplink_type;
    using o = uplink_outcome;
    const std::pair<t, o> expected[] = {{t::ul_app, o::acked},
                                        {t::ul_app, o::rejected_not_mine},
                                        {t::ul_app, o::rejected_error},
                                        {t::ul_hb, o::rejected_heartbeat},
                                        {t::ul_hb, o::rejected_not_mine},
                                        {t::ul_hb, o::rejected_error},
                                        {t::dl_report, o::acked},
                                        {t::dl_report, o::rejected_not_mine},
                                        {t::dl_report, o::rejected_error},
                                        {t::unknown, o::rejected_bad},
                                        {t::unknown, o::rejected_error}};
    for (const auto& pair : expected) {
        uplink(pair.first, pair.second);
    }
    m_uplink_seconds =
        &m_registry
             .add_histogram("quillon_uplink_processing_seconds",
                            "Time from a delivery's arrival to its acknowledgement or rejection.",
                            latency_buckets)
             .with({});
    m_publications =
        &m_registry.add_counter("quillon_publications_total", "Messages published to client applications.")
             .with({});
    m_publications_dropped = &m_registry
                                  .add_counter("quillon_publications_dropped_total",
                                               "Publications to client applications dropped because the "
                                               "publisher's broker link was down.")
                                  .with({});
    m_commands = &m_registry.add_counter("quillon_commands_total",
                                         "API commands served, by name and outcome.", {"name", "outcome"});
    m_command_seconds = &m_registry.add_histogram("quillon_command_seconds",
                                                  "Time to execute an API command until its reply.",
                                                  command_buckets, {"name"});
    m_pending_commands = &m_registry
                              .add_gauge("quillon_pending_commands",
                                         "Commands this service sent (downlinks to the network server) whose "
                                         "response is still awaited.")
                              .with({});
    auto& downlinks =
        m_registry.add_counter("quillon_downlinks_sent_total",
                               "Downlinks handed to the network server, by who asked for them.", {"source"});
    for (std::size_t i = 0; i < m_downlinks.size(); ++i) {
        m_downlinks[i] = &downlinks.with({dl_sources[i]});
    }
    auto& steps =
        m_registry.add_counter("quillon_dl_queue_steps_total",
                               "Downlink queue steps after accepted uplinks, by result.", {"result"});
    for (std::size_t i = 0; i < m_dl_queue_steps.size(); ++i) {
        m_dl_queue_steps[i] = &steps.with({dl_queue_results[i]});
    }
    auto& connected =
        m_registry.add_gauge("quillon_amqp_connected", "1 while the broker link is up, else 0.", {"link"});
    auto& reconnects = m_registry.add_counter(
        "quillon_amqp_reconnects_total", "Times a broker link came up again after it was lost.", {"link"});
    for (std::size_t i = 0; i < link_count; ++i) {
        m_connected[i] = &connected.with({links[i]});
        m_reconnects[i] = &reconnects.with({links[i]});
    }
    auto& store = m_registry.add_histogram("quillon_store_seconds", "Time of store operations, by operation.",
                                           store_buckets, {"operation"});
    for (std::size_t i = 0; i < m_store_seconds.size(); ++i) {
        m_store_seconds[i] = &store.with({store_operations[i]});
    }
    m_store_errors =
        &m_registry.add_counter("quillon_store_errors_total", "Store operations and commits that failed.")
             .with({});
    m_batch_size =
        &m_registry
             .add_histogram("quillon_batch_size", "Deliveries committed together in one store transaction.",
                            {1, 2, 4, 8, 16, 32, 64})
             .with({});
    m_store_up = &m_registry.add_gauge("quillon_store_up", "1 while the store answers, else 0.").with({});
    m_store_up->set(1);
    m_build_info = &m_registry.add_gauge("quillon_build_info", "The running service: version and instance.",
                                         {"version", "protocol", "instance", "position", "count"});
    m_registry.add_collector([this] { return metrics::process_families(m_start_time.load()); });
}

void service_metrics::set_build(const build_facts& facts) {
    m_build_info
        ->with({facts.version.toStdString(), facts.protocol.toStdString(), facts.instance.toStdString(),
                std::to_string(facts.position), std::to_string(facts.count)})
        .set(1);
    m_start_time.store(facts.start_time);
}

metrics::counter& service_metrics::uplink(uplink_type type, uplink_outcome outcome) {
    metrics::counter*& child = m_uplinks[at(type)][at(outcome)];
    if (!child) {
        child = &m_uplink_family->with({uplink_types[at(type)], uplink_outcomes[at(outcome)]});
    }
    return *child;
}

void service_metrics::count_command(const QString& name, const char* outcome, double seconds) {
    const std::string command = name.toStdString();
    m_commands->with({command, outcome}).inc();
    m_command_seconds->with({command}).observe(seconds);
}

metrics::counter& service_metrics::downlinks_sent(dl_source source) {
    return *m_downlinks[at(source)];
}

metrics::counter& service_metrics::dl_queue_steps(dl_queue_result result) {
    return *m_dl_queue_steps[at(result)];
}

void service_metrics::set_link(amqp_link link, bool up) {
    m_connected[at(link)]->set(up ? 1 : 0);
}

metrics::counter& service_metrics::reconnects(amqp_link link) {
    return *m_reconnects[at(link)];
}

metrics::histogram& service_metrics::store_seconds(store_operation operation) {
    return *m_store_seconds[at(operation)];
}

void service_metrics::set_store_up() {
    m_store_up->set(1);
    m_store_verdict_ms.store(steady_ms());
}

int64_t service_metrics::ms_since_store_verdict() const {
    return steady_ms() - m_store_verdict_ms.load();
}

void service_metrics::set_store_down(const QString& why) {
    {
        std::lock_guard<std::mutex> lock(m_store_mutex);
        m_store_error = why;
    }
    m_store_up->set(0);
    m_store_verdict_ms.store(steady_ms());
}

const char* service_metrics::link_name(amqp_link link) {
    return links[at(link)];
}

bool service_metrics::store_up() const {
    return m_store_up->value() > 0;
}

bool service_metrics::link_up(amqp_link link) const {
    return m_connected[at(link)]->value() > 0;
}

// {"status": "up"|"down", "amqp": {"uplinks": "up", ...}, "store": "up"|"down",
//  "down": ["amqp uplinks", "store"], "store_error": "..." (while the store is down)}
service_metrics::health_report service_metrics::health() const {
    QJsonObject amqp;
    QJsonArray down;
    for (std::size_t i = 0; i < link_count; ++i) {
        const bool up = link_up(amqp_link(i));
        amqp.insert(links[i], up ? "up" : "down");
        if (!up) {
            down.append(QString("amqp ") + links[i]);
        }
    }
    QJsonObject body;
    body.insert("amqp", amqp);
    const bool store = store_up();
    body.insert("store", store ? "up" : "down");
    if (!store) {
        down.append("store");
        std::lock_guard<std::mutex> lock(m_store_mutex);
        body.insert("store_error", m_store_error);
    }
    body.insert("down", down);
    body.insert("status", down.isEmpty() ? "up" : "down");
    return {down.isEmpty(), QJsonDocument(body).toJson(QJsonDocument::Compact)};
}
