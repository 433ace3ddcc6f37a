#pragma once

#include <QString>
#include <QStringList>
#include <QTextStream>

#include "bench/faults/faults_options.h"
#include "bench/faults/ledger.h"

namespace faults {

// The faults a run injected, as done (not as asked).
struct fault_tally {
    int broker_restarts = 0;
    int close_rounds = 0;
    int connections_closed = 0;
    int kills = 0;
    int exchange_drops = 0;
    int store_restarts = 0;  // service restarts that set or lifted the store's limit
    int node_stops = 0;      // cluster nodes stopped (and started again)
    QString leader_before;   // the uplink queue's leader before the stop, and after it
    QString leader_after;
    int64_t store_limit_pages = 0;
    double longest_outage_s = 0;  // from the end of a fault to the service consuming again
};

struct run_report {
    faults_options options;
    fault_tally faults;
    fault_counts counts;
    double stream_s = 0;
    double drain_s = 0;
    int batches_sent_again = 0;  // batches the broker did not confirm, published again
    int service_exit_code = 0;   // of the last orderly stop
    QStringList examples;        // a few lost or acknowledged but unstored uplinks
    QStringList problems;        // what went wrong around the faults
    QString service_dir;
};

void print_table(QTextStream& out, const run_report& report);
// uplinks=.. stored=.. lost=.. acked_unstored=.. duplicates=.. rejected=.. restarts=.. kills=.. closes=..
QString key_line(const run_report& report);

}  // namespace faults
