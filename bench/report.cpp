#include "bench/report.h"

#include <QStringList>
#include <cmath>

#include "app/logger.h"

namespace bench {

namespace {

QString number(double value, int decimals = 1) {
    return std::isfinite(value) ? QString::number(value, 'f', decimals) : QStringLiteral("nan");
}

QString per_thousand(double seconds, uint64_t uplinks) {
    return uplinks > 0 ? number(seconds * 1000.0 / double(uplinks), 3) : QStringLiteral("nan");
}

void row(QTextStream& out, const QString& label, const QString& first, const QString& second = QString()) {
    out << "  " << label.leftJustified(40) << first.rightJustified(14) << second.rightJustified(14) << '\n';
}

QString joined(const std::vector<double>& values, int decimals) {
    QStringList items;
    for (double value : values) {
        items << number(value, decimals);
    }
    return items.join(' ');
}

// Each pair's ratios and the medians the key line reports.
void print_pairs(QTextStream& out, const uplink_bench_result& u) {
    const pair_figures& f = u.pairs;
    out << "Runs in turn, pass-through then service: " << u.service_runs.size() << " pair(s); medians:\n";
    row(out, "", "pass-through", "service");
    row(out, "uplinks per second", number(f.passthrough_ups, 0), number(f.service_ups, 0));
    row(out, "consumer CPU ms per uplink", number(f.passthrough_cpu_ms, 3), number(f.service_cpu_ms, 3));
    row(out, "service / pass-through, uplinks/s", number(f.ratio, 3));
    row(out, "  each pair", joined(f.ratios, 3));
    row(out, "service / pass-through, CPU/uplink", number(f.cpu_ratio, 2));
    row(out, "  each pair", joined(f.cpu_ratios, 2));
}

void print_uplinks(QTextStream& out, const bench_report& report) {
    const uplink_bench_result& u = report.uplinks;
    const throughput_result& p = u.passthrough;
    const throughput_result& s = u.service;
    out << "Uplink path: " << report.options.uplinks << " uplinks preloaded per consumer, "
        << report.options.modems << " modems with " << report.options.clients << " client(s) each, "
        << number(u.messages_per_uplink) << " client messages (" << number(u.bytes_per_uplink, 0)
        << " bytes) per uplink\n";
    print_pairs(out, u);
    out << "The last run of each:\n";
    row(out, "", "pass-through", "service");
    row(out, "uplinks per second", number(p.uplinks_per_s, 0), number(s.uplinks_per_s, 0));
    row(out, "client messages per second", number(p.messages / std::max(p.seconds, 1e-9), 0),
        number(s.messages / std::max(s.seconds, 1e-9), 0));
    row(out, "seconds, first to last client message", number(p.seconds, 2), number(s.seconds, 2));
    row(out, "consumer CPU s per 1000 uplinks", per_thousand(p.consumer_cpu_s, p.uplinks),
        per_thousand(s.consumer_cpu_s, s.uplinks));
    row(out, "broker CPU s per 1000 uplinks", per_thousand(p.broker_cpu_s, p.uplinks),
        per_thousand(s.broker_cpu_s, s.uplinks));
    row(out, "consumer run-queue wait, share of the run",
        number(100.0 * p.consumer_wait_s / std::max(p.seconds, 1e-9), 0) + "%",
        number(100.0 * s.consumer_wait_s / std::max(s.seconds, 1e-9), 0) + "%");
    row(out, "broker run-queue wait s per 1000 uplinks", per_thousand(p.broker_wait_s, p.uplinks),
        per_thousand(s.broker_wait_s, s.uplinks));
    row(out, "consumer resident MiB: start", number(p.rss_start_mib), number(s.rss_start_mib));
    row(out, "  after a tenth of the uplinks", number(p.rss_warm_mib), number(s.rss_warm_mib));
    row(out, "  end", number(p.rss_end_mib), number(s.rss_end_mib));
    row(out, "  peak", number(p.rss_peak_mib), number(s.rss_peak_mib));
    const latency_result& l = u.latency;
    out << "Latency, publication of an uplink to its last client message, at " << number(l.offered_per_s, 0)
        << " uplinks/s (half the service's rate), " << l.received << " uplinks:\n";
    const latency_result& pl = u.passthrough_latency;
    const bool floor = pl.complete;
    row(out, "", floor ? "service" : "", floor ? "pass-through" : "");
    row(out, "p50 ms", number(l.p50_ms, 2), floor ? number(pl.p50_ms, 2) : QString());
    row(out, "p99 ms", number(l.p99_ms, 2), floor ? number(pl.p99_ms, 2) : QString());
    row(out, "max ms", number(l.max_ms, 2), floor ? number(pl.max_ms, 2) : QString());
    row(out, "service run-queue wait, share of the run", number(100.0 * u.latency_wait_share, 0) + "%");
    row(out, "service resident MiB after it", number(u.rss_after_latency_mib));
    if (l.out_of_order > 0) {
        row(out, "stored messages out of order", QString::number(l.out_of_order));
    }
}

void print_store(QTextStream& out, const bench_report& report) {
    const store_fill_result& f = report.fill;
    const history_query_result& q = report.query;
    out << "SQLite store: " << f.rows << " value rows over " << report.options.store_modems << " modems ("
        << number(f.file_mib) << " MiB file)\n";
    row(out, "fill, rows per second (large transactions)", number(f.rows_per_s, 0));
    row(out, "uplinks of ten records saved per second", number(f.saves_per_s, 0));
    row(out, "get_eav_value, one modem, limit 3000: rows", QString::number(q.rows));
    row(out, "  first after start ms", number(q.first_ms, 2));
    row(out, "  p50 ms", number(q.p50_ms, 2));
    row(out, "  max ms", number(q.max_ms, 2));
}

}  // namespace

void print_table(QTextStream& out, const bench_report& report) {
    out << "quillon-bench, broker " << mask_url_password(report.broker_url) << '\n';
    if (report.uplinks_run) {
        print_uplinks(out, report);
    }
    if (report.store_run) {
        print_store(out, report);
    }
}

QString key_line(const bench_report& report) {
    const uplink_bench_result& u = report.uplinks;
    const bool up = report.uplinks_run;
    const auto figure = [](bool measured, double value, int decimals) {
        return measured ? number(value, decimals) : QStringLiteral("nan");
    };
    return QString(
               "ratio=%1 service_ups=%2 passthrough_ups=%3 p50_ms=%4 p99_ms=%5 rss_start_mib=%6 "
               "rss_end_mib=%7 query_ms=%8 cpu_ratio=%9")
        .arg(figure(up, u.pairs.ratio, 3), figure(up, u.pairs.service_ups, 0),
             figure(up, u.pairs.passthrough_ups, 0), figure(up, u.latency.p50_ms, 2),
             figure(up, u.latency.p99_ms, 2), figure(up, u.service.rss_start_mib, 1),
             figure(up, u.service.rss_end_mib, 1), figure(report.store_run, report.query.p50_ms, 2),
             figure(up, u.pairs.cpu_ratio, 2));
}

}  // namespace bench
