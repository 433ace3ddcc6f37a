#pragma once

#include <QString>
#include <QTextStream>

#include "bench/bench_options.h"
#include "bench/history_query.h"
#include "bench/store_fill.h"
#include "bench/uplink_bench.h"

namespace bench {

struct bench_report {
    bench_options options;
    QString broker_url;
    bool uplinks_run = false;
    uplink_bench_result uplinks;
    bool store_run = false;
    store_fill_result fill;
    history_query_result query;
};

// The readable table.
void print_table(QTextStream& out, const bench_report& report);
// The last line: ratio, service_ups, passthrough_ups, p50_ms, p99_ms, rss_start_mib,
// rss_end_mib, query_ms, cpu_ratio (medians over the pairs where there are several; a
// figure that was not measured is written as "nan").
QString key_line(const bench_report& report);

}  // namespace bench
