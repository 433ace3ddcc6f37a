#pragma once

#include <QString>
#include <QTemporaryDir>
#include <memory>

#include "app/logger.h"
#include "bench/bench_options.h"
#include "bench/broker.h"
#include "bench/client_drain.h"
#include "bench/latency_run.h"
#include "bench/pair_figures.h"
#include "bench/passthrough/publication_profile.h"
#include "bench/throughput_meter.h"
#include "bench/uplink_sender.h"

namespace bench {

struct uplink_bench_result {
    QString error;
    double messages_per_uplink = 0;  // client messages the service publishes per uplink
    double bytes_per_uplink = 0;
    // Every run in turn, pass-through first (A B A B ...), and their medians.
    std::vector<throughput_result> passthrough_runs;
    std::vector<throughput_result> service_runs;
    pair_figures pairs;
    // The last run of each, for the detail rows (memory, run-queue waits).
    throughput_result passthrough;
    throughput_result service;
    latency_result latency;
    // The pass-through at the same offered rate: the latency the broker alone allows.
    latency_result passthrough_latency;
    double rss_after_latency_mib = 0;
    double latency_wait_share = 0;  // of the service's time: ready to run, no processor
};

class service_instance;
class uplink_feed;

// Every modem of the fleet with the same clients.
void register_fleet(service_instance& service, const uplink_feed& feed, const QStringList& clients);
// The store of the options for the service: its own SQLite file, or the PostgreSQL
// server with the given schema (a fresh one when empty).
void use_store(service_instance& service, const bench_options& options, const QString& schema = QString());

// The uplink path: a short calibration run of the service records what it publishes
// per uplink; then the pass-through consumer and the service in turn, `rounds` times
// each, empty a freshly preloaded queue of the same uplinks; then the last service, and
// after it the pass-through, get uplinks at half the service's median rate for the latency.
class uplink_bench {
public:
    uplink_bench(logger& log, const broker& target, const bench_options& options);
    ~uplink_bench();

    uplink_bench_result run();

private:
    bool calibrate(passthrough::publication_profile& profile, QString& error);
    throughput_result run_passthrough(const passthrough::publication_profile& profile);
    // One service run; with `with_latency` the latency run follows on the same service.
    void run_service(uplink_bench_result& result, bool with_latency);
    latency_result run_passthrough_latency(const passthrough::publication_profile& profile, double rate,
                                           uint64_t count);

    logger& m_log;
    broker m_target;
    bench_options m_options;
    QStringList m_clients;  // of every modem
    QString m_marker_key;
    QTemporaryDir m_dir;
    std::unique_ptr<broker_admin> m_admin;
    std::unique_ptr<client_drain> m_drain;
    std::unique_ptr<uplink_sender> m_sender;
};

}  // namespace bench
