#include "bench/latency_run.h"

#include <QEventLoop>
#include <QTimer>
#include <algorithm>
#include <deque>
#include <vector>

#include "bench/proc_stats.h"
#include "bench/wait.h"

namespace bench {

namespace {

struct open_uplink {
    int64_t sent_us;
    QString modem;
};

double percentile_ms(std::vector<int64_t>& sorted_us, double fraction) {
    if (sorted_us.empty()) {
        return 0.0;
    }
    const size_t index = std::min(sorted_us.size() - 1, size_t(fraction * double(sorted_us.size())));
    return double(sorted_us[index]) / 1000.0;
}

}  // namespace

latency_result measure_latency(uplink_sender& sender, client_drain& drain, uplink_feed& feed,
                               const QString& route_key, double rate_per_s, uint64_t count, int clients) {
    latency_result result;
    result.offered_per_s = rate_per_s;
    if (rate_per_s <= 0 || count == 0) {
        result.error = "no rate to offer";
        return result;
    }
    std::deque<open_uplink> open;
    std::vector<int64_t> latencies;
    int rolls_of_oldest = 0;
    latencies.reserve(count);
    drain.on_message([&](const amqp::message& msg, int64_t arrival_us) {
        if (!msg.routing_key.contains(QLatin1String(".ul_roll.")) || open.empty()) {
            return;
        }
        if (!msg.routing_key.endsWith('.' + open.front().modem)) {
            ++result.out_of_order;
        }
        if (++rolls_of_oldest < clients) {
            return;
        }
        rolls_of_oldest = 0;
        latencies.push_back(arrival_us - open.front().sent_us);
        open.pop_front();
    });

    // A fine timer publishes whatever is due by the schedule, so the offered rate holds
    // on average even when a tick comes late.
    const int64_t start_us = now_us();
    QTimer tick;
    tick.setTimerType(Qt::PreciseTimer);
    QObject::connect(&tick, &QTimer::timeout, [&] {
        const uint64_t due =
            std::min<uint64_t>(count, uint64_t(double(now_us() - start_us) * rate_per_s / 1e6) + 1);
        while (result.sent < due) {
            const QJsonObject uplink = feed.next();
            open.push_back({now_us(), QString::number(uplink.value("modem_id").toInt())});
            sender.send(uplink, uplink_feed::routing_key(uplink, route_key));
            ++result.sent;
        }
        if (result.sent >= count) {
            tick.stop();
        }
    });
    tick.start(1);
    const int64_t expected_ms = int64_t(double(count) / rate_per_s * 1000.0);
    wait_until([&] { return latencies.size() >= count; }, int(expected_ms + 30000));
    tick.stop();
    drain.on_message({});

    result.received = latencies.size();
    result.complete = result.received >= count;
    if (!result.complete) {
        result.error = QString("%1 of %2 uplinks came back").arg(result.received).arg(count);
    }
    std::sort(latencies.begin(), latencies.end());
    result.p50_ms = percentile_ms(latencies, 0.50);
    result.p99_ms = percentile_ms(latencies, 0.99);
    result.max_ms = latencies.empty() ? 0.0 : double(latencies.back()) / 1000.0;
    return result;
}

}  // namespace bench
