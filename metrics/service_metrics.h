#pragma once

#include <QByteArray>
#include <QString>
#include <array>
#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>

#include "metrics/metrics.h"

// Every figure the service exports, by name, with the label values it uses made up front
// (so that each series exists, at zero, from the start), and the service's health as the
// event loop last saw it. Written on the event-loop thread; read by the metrics endpoint's
// thread.
class service_metrics {
public:
    enum class uplink_type { ul_app, ul_hb, dl_report, unknown };
    // requeued: handed back to the queue unsettled while the store's server was away.
    enum class uplink_outcome {
        acked,
        rejected_not_mine,
        rejected_bad,
        rejected_error,
        rejected_heartbeat,
        requeued
    };
    enum class amqp_link { uplinks, clients, commands_in, commands_out };
    enum class dl_source { api, queue, driver };
    enum class dl_queue_result { sent, idle, error };
    enum class store_operation { save_message, save_records, modem_state, commit, probe };
    static constexpr int link_count = 4;

    struct build_facts {
        QString version;
        QString protocol;
        QString instance;
        int position = 0;
        int count = 1;
        int64_t start_time = 0;  // seconds since the epoch
    };

    service_metrics();
    service_metrics(const service_metrics&) = delete;
    service_metrics& operator=(const service_metrics&) = delete;

    // quillon_build_info and the process start time; called once at start-up.
    void set_build(const build_facts& facts);

    void count_uplink(uplink_type type, uplink_outcome outcome) { uplink(type, outcome).inc(); }
    metrics::counter& uplink(uplink_type type, uplink_outcome outcome);
    metrics::histogram& uplink_seconds() { return *m_uplink_seconds; }
    metrics::counter& publications() { return *m_publications; }
    metrics::counter& publications_dropped() { return *m_publications_dropped; }
    // A served command; `outcome` is one of ok, error, forbidden, unknown, repeated.
    void count_command(const QString& name, const char* outcome, double seconds);
    metrics::gauge& pending_commands() { return *m_pending_commands; }
    metrics::counter& downlinks_sent(dl_source source);
    metrics::counter& dl_queue_steps(dl_queue_result result);
    void set_link(amqp_link link, bool up);
    metrics::counter& reconnects(amqp_link link);
    metrics::histogram& store_seconds(store_operation operation);
    metrics::counter& store_errors() { return *m_store_errors; }
    metrics::histogram& batch_size() { return *m_batch_size; }
    // Whether the store answered its last request; `why` names the failure.
    void set_store_up();
    void set_store_down(const QString& why);
    // Milliseconds since the store last answered or failed (a probe is due when idle long).
    int64_t ms_since_store_verdict() const;

    static const char* link_name(amqp_link link);

    // The health as JSON, and whether every link is up and the store answers.
    struct health_report {
        bool healthy = false;
        QByteArray body;
    };
    health_report health() const;
    bool store_up() const;
    bool link_up(amqp_link link) const;

    const metrics::registry& registry() const { return m_registry; }

private:
    metrics::registry m_registry;
    metrics::family<metrics::counter>* m_uplink_family = nullptr;
    // Made up front for the pairs that occur; any other on first use (loop thread only).
    std::array<std::array<metrics::counter*, 5>, 4> m_uplinks{};
    metrics::histogram* m_uplink_seconds = nullptr;
    metrics::counter* m_publications = nullptr;
    metrics::counter* m_publications_dropped = nullptr;
    metrics::family<metrics::counter>* m_commands = nullptr;
    metrics::family<metrics::histogram>* m_command_seconds = nullptr;
    metrics::gauge* m_pending_commands = nullptr;
    std::array<metrics::counter*, 3> m_downlinks{};
    std::array<metrics::counter*, 3> m_dl_queue_steps{};
    std::array<metrics::gauge*, link_count> m_connected{};
    std::array<metrics::counter*, link_count> m_reconnects{};
    std::array<metrics::histogram*, 5> m_store_seconds{};
    metrics::counter* m_store_errors = nullptr;
    metrics::histogram* m_batch_size = nullptr;
    metrics::gauge* m_store_up = nullptr;
    metrics::family<metrics::gauge>* m_build_info = nullptr;
    std::atomic<int64_t> m_start_time{0};
    std::atomic<int64_t> m_store_verdict_ms{0};  // steady clock

    mutable std::mutex m_store_mutex;
    QString m_store_error;  // the last failure while the store is down
};
