#include "bench/throughput_meter.h"

#include <csignal>

#include "bench/proc_stats.h"
#include "bench/wait.h"

namespace bench {

throughput_meter::throughput_meter(client_drain& drain, pid_t broker_pid, int clients)
    : m_drain(drain), m_broker_pid(broker_pid), m_clients(uint64_t(qMax(1, clients))) {}

throughput_result throughput_meter::run(uint64_t uplinks, const std::function<pid_t()>& start_consumer,
                                        const capture& on_message, int stall_ms) {
    m_result = throughput_result{};
    m_expected = uplinks * m_clients;
    m_rolls = m_messages = m_bytes = 0;
    m_first_us = m_last_us = 0;
    m_capture = on_message;
    m_drain.on_message(
        [this](const amqp::message& msg, int64_t arrival_us) { on_client_message(msg, arrival_us); });

    m_consumer_pid = start_consumer();
    if (m_consumer_pid <= 0) {
        m_drain.on_message({});
        m_result.error = "the consumer did not start";
        return m_result;
    }
    uint64_t seen = 0;
    while (m_rolls < m_expected) {
        wait_until([this] { return m_rolls >= m_expected; }, stall_ms);
        if (m_rolls < m_expected && (m_messages == seen || ::kill(m_consumer_pid, 0) != 0)) {
            m_result.error = QString("stalled after %1 of %2 uplinks").arg(m_rolls / m_clients).arg(uplinks);
            break;
        }
        seen = m_messages;
    }
    m_drain.on_message({});
    m_result.uplinks = m_rolls / m_clients;
    m_result.messages = m_messages;
    m_result.bytes = m_bytes;
    m_result.complete = m_rolls >= m_expected;
    if (m_last_us > m_first_us) {
        m_result.seconds = double(m_last_us - m_first_us) / 1e6;
        m_result.uplinks_per_s = double(m_result.uplinks) / m_result.seconds;
    }
    return m_result;
}

void throughput_meter::on_client_message(const amqp::message& msg, int64_t arrival_us) {
    if (m_capture) {
        m_capture(msg);
    }
    if (m_first_us == 0) {
        sample_start(arrival_us);
    }
    ++m_messages;
    m_bytes += uint64_t(msg.payload.size());
    if (!msg.routing_key.contains(QLatin1String(".ul_roll."))) {
        return;
    }
    ++m_rolls;
    if (m_rolls == qMax<uint64_t>(1, m_expected / 10)) {
        m_result.rss_warm_mib = resident_mib(m_consumer_pid);
    }
    if (m_rolls == m_expected) {
        sample_end(arrival_us);
    }
}

void throughput_meter::sample_start(int64_t arrival_us) {
    m_first_us = arrival_us;
    m_cpu_consumer_start = cpu_seconds(m_consumer_pid);
    m_cpu_broker_start = cpu_seconds(m_broker_pid);
    m_result.rss_start_mib = resident_mib(m_consumer_pid);
    m_wait_consumer_start = run_queue_wait_seconds(m_consumer_pid);
    m_wait_broker_start = run_queue_wait_seconds(m_broker_pid);
}

void throughput_meter::sample_end(int64_t arrival_us) {
    m_last_us = arrival_us;
    m_result.consumer_cpu_s = cpu_seconds(m_consumer_pid) - m_cpu_consumer_start;
    m_result.broker_cpu_s = m_broker_pid > 0 ? cpu_seconds(m_broker_pid) - m_cpu_broker_start : 0.0;
    m_result.rss_end_mib = resident_mib(m_consumer_pid);
    m_result.consumer_wait_s = run_queue_wait_seconds(m_consumer_pid) - m_wait_consumer_start;
    m_result.broker_wait_s = run_queue_wait_seconds(m_broker_pid) - m_wait_broker_start;
    m_result.rss_peak_mib = peak_resident_mib(m_consumer_pid);
}

}  // namespace bench
