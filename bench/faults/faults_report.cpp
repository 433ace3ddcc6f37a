#include "bench/faults/faults_report.h"

namespace faults {

namespace {

void row(QTextStream& out, const QString& label, const QString& value) {
    out << "  " << label.leftJustified(58, ' ') << value << '\n';
}

void row(QTextStream& out, const QString& label, int64_t value) {
    row(out, label, QString::number(value));
}

}  // namespace

void print_table(QTextStream& out, const run_report& report) {
    const faults_options& o = report.options;
    const fault_tally& f = report.faults;
    const fault_counts& c = report.counts;
    out << "Fault run: " << o.uplinks << " uplinks of " << o.modems << " modems at "
        << (o.rate > 0 ? QString::number(o.rate) + "/s" : QString("full speed")) << '\n';
    out << "Faults injected\n";
    row(out, "broker restarts", f.broker_restarts);
    row(out, "forced close rounds (connections closed)",
        QString("%1 (%2)").arg(f.close_rounds).arg(f.connections_closed));
    row(out, "service kills (kill -9, then started again)", f.kills);
    row(out, "client exchange drops", f.exchange_drops);
    if (o.store_full) {
        row(out, "store full (max_page_count) from a third to two thirds",
            QString("%1 pages, %2 service restarts").arg(f.store_limit_pages).arg(f.store_restarts));
    }
    if (o.cluster) {
        row(out, "cluster node stops (node 2, the uplink queue's leader)", f.node_stops);
        if (f.node_stops > 0) {
            row(out, "uplink queue leader before the stop, after it",
                f.leader_before + ", " + f.leader_after);
        }
    }
    row(out, "longest wait after a fault for the service to consume, s",
        QString::number(f.longest_outage_s, 'f', 1));
    out << "Uplinks\n";
    row(out, "sent (confirmed by the broker)", c.uplinks);
    row(out, "stored", c.stored);
    row(out, "rejected (dead-lettered)", c.rejected);
    row(out, "  of them not named in the service's log", c.rejected_unlogged);
    row(out, "  of them stored all the same (another delivery)", c.rejected_stored);
    row(out, "left in the uplink queue at the end", c.left);
    row(out, "lost: neither stored nor rejected", c.lost);
    row(out, "acknowledged but not stored", c.acked_unstored);
    row(out, "duplicates: stored rows beyond one per uplink", c.duplicates);
    row(out, "  of them uplinks the tool published again", c.duplicates_sent_again);
    row(out, "stored rows of uplinks never confirmed as sent", c.stored_unsent);
    row(out, "batches published again after a broker failure", report.batches_sent_again);
    out << "Time\n";
    row(out, "stream, s", QString::number(report.stream_s, 'f', 1));
    row(out, "drain after the last uplink, s", QString::number(report.drain_s, 'f', 1));
    row(out, "exit status of the service's last orderly stop", report.service_exit_code);
    if (!report.examples.isEmpty()) {
        out << "Examples\n";
        for (const QString& example : report.examples) {
            out << "  " << example << '\n';
        }
    }
    if (!report.problems.isEmpty()) {
        out << "Problems\n";
        for (const QString& problem : report.problems) {
            out << "  " << problem << '\n';
        }
    }
    if (!report.service_dir.isEmpty()) {
        out << "Service directory (log and store): " << report.service_dir << '\n';
    }
}

QString key_line(const run_report& report) {
    const fault_counts& c = report.counts;
    return QString(
               "uplinks=%1 stored=%2 lost=%3 acked_unstored=%4 duplicates=%5 rejected=%6 restarts=%7 "
               "kills=%8 closes=%9 node_stops=%10")
        .arg(c.uplinks)
        .arg(c.stored)
        .arg(c.lost)
        .arg(c.acked_unstored)
        .arg(c.duplicates)
        .arg(c.rejected)
        .arg(report.faults.broker_restarts)
        .arg(report.faults.kills)
        .arg(report.faults.close_rounds)
        .arg(report.faults.node_stops);
}

}  // namespace faults
