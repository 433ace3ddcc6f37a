#pragma once

#include <memory>
#include <vector>

#include "app/logger.h"
#include "bench/bench_options.h"
#include "bench/broker.h"
#include "bench/client_drain.h"
#include "bench/throughput_meter.h"
#include "bench/uplink_sender.h"

namespace bench {

struct scale_point {
    int instances = 0;
    throughput_result result;
};

// Throughput of 1, 2 .. N instances of the service sharing the modems through the
// balancer: each instance its own uplink queue, bound with its balancer key; the same
// uplinks preloaded, each on the key of the instance that owns its modem; the run ends
// when every uplink's stored message has reached the client.
class scale_run {
public:
    scale_run(logger& log, const broker& target, const bench_options& options);
    ~scale_run();
    scale_run(const scale_run&) = delete;
    scale_run& operator=(const scale_run&) = delete;

    // One point per instance count; a point whose run failed has its error set.
    std::vector<scale_point> run();

private:
    scale_point measure(int instances);

    logger& m_log;
    broker m_target;
    bench_options m_options;
    QString m_client;
    std::unique_ptr<broker_admin> m_admin;
    std::unique_ptr<client_drain> m_drain;
    std::unique_ptr<uplink_sender> m_sender;
};

}  // namespace bench
