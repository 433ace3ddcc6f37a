#pragma once

#include <sys/types.h>
#include <QString>
#include <cstdint>
#include <functional>
#include <vector>

#include "amqp/amqp_message.h"
#include "bench/client_drain.h"

namespace bench {

struct throughput_result {
    bool complete = false;
    QString error;
    uint64_t uplinks = 0;
    uint64_t messages = 0;  // client messages received
    uint64_t bytes = 0;     // their bodies
    double seconds = 0;     // first client message to last
    double uplinks_per_s = 0;
    double consumer_cpu_s = 0;
    double broker_cpu_s = 0;
    double consumer_wait_s = 0;  // ready to run, waiting for a processor
    double broker_wait_s = 0;
    double rss_start_mib = 0;  // consumer, at its first client message
    double rss_warm_mib = 0;   // after a tenth of the uplinks
    double rss_end_mib = 0;
    double rss_peak_mib = 0;
};

// Watches one consumer empty a preloaded uplink queue, from the client side: every
// uplink ends with its stored message ("ul_roll") for each client, so the run is over
// when uplinks times clients of those have arrived. CPU and memory are
// sampled at the first client message and at the last.
class throughput_meter {
public:
    using capture = std::function<void(const amqp::message&)>;

    throughput_meter(client_drain& drain, pid_t broker_pid, int clients = 1);

    // Starts the consumer (returning its process id, 0 on failure) and waits until the
    // consumer has handled `uplinks` or has made no progress for `stall_ms`.
    throughput_result run(uint64_t uplinks, const std::function<pid_t()>& start_consumer,
                          const capture& on_message = {}, int stall_ms = 30000);

private:
    void on_client_message(const amqp::message& msg, int64_t arrival_us);
    void sample_start(int64_t arrival_us);
    void sample_end(int64_t arrival_us);

    client_drain& m_drain;
    pid_t m_broker_pid;
    uint64_t m_clients;
    pid_t m_consumer_pid = 0;
    uint64_t m_expected = 0;
    uint64_t m_rolls = 0;
    uint64_t m_messages = 0;
    uint64_t m_bytes = 0;
    int64_t m_first_us = 0;
    int64_t m_last_us = 0;
    double m_cpu_consumer_start = 0;
    double m_cpu_broker_start = 0;
    double m_wait_consumer_start = 0;
    double m_wait_broker_start = 0;
    throughput_result m_result;
    capture m_capture;
};

}  // namespace bench
