// quillon-bench: throughput, latency and memory of the uplink path, and the SQLite
// store's figures. See docs/performance.md.
#include <QCoreApplication>
#include <QTemporaryDir>
#include <QTextStream>

#include "app/logger.h"
#include "bench/bench_options.h"
#include "bench/broker.h"
#include "bench/history_query.h"
#include "bench/option_values.h"
#include "bench/postgres_target.h"
#include "bench/report.h"
#include "bench/scale_run.h"
#include "bench/store_fill.h"
#include "bench/uplink_bench.h"

int main(int argc, char* argv[]) {
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName("quillon-bench");
    bench::quiet_qt_messages();
    QTextStream out(stdout);
    QTextStream err(stderr);

    bench::bench_options options;
    QString message;
    bool help = false;
    if (!bench::parse_options(app.arguments(), options, message, help)) {
        (help ? out : err) << message << '\n';
        return help ? 0 : 2;
    }

    QTemporaryDir dir;
    logger log(dir.filePath("bench.log"), Error, "bench");
    bench::broker target;
    if (!bench::open_broker(options.url, target, message)) {
        err << "quillon-bench: " << message << '\n';
        return 1;
    }
    if (options.store_backend == "postgres") {
        QString conninfo;
        if (!bench::open_postgres(options.pg_conninfo, conninfo, message)) {
            err << "quillon-bench: " << message << '\n';
            return 1;
        }
        options.pg_conninfo = conninfo;
    }
    bench::bench_report report;
    report.options = options;
    report.broker_url = target.url;
    int status = 0;
    if (options.uplink_path) {
        err << "quillon-bench: uplink path..." << Qt::endl;
        bench::uplink_bench uplinks(log, target, options);
        report.uplinks = uplinks.run();
        report.uplinks_run = true;
        if (!report.uplinks.error.isEmpty()) {
            err << "quillon-bench: " << report.uplinks.error << '\n';
            status = 1;
        }
    }
    if (options.store) {
        err << "quillon-bench: store..." << Qt::endl;
        bench::store_fill_options fill;
        fill.path = dir.filePath("store.db");
        fill.rows = options.rows;
        fill.modems = options.store_modems;
        fill.saves = options.saves;
        report.fill = bench::fill_store(fill, log);
        report.store_run = true;
        if (!report.fill.ok) {
            err << "quillon-bench: " << report.fill.error << '\n';
            status = 1;
        } else {
            bench::broker_admin admin(log, target);
            report.query = bench::time_history_queries(log, target, admin, fill.path, report.fill.heavy_modem,
                                                       options.queries, 3000);
            if (!report.query.ok) {
                err << "quillon-bench: " << report.query.error << '\n';
                status = 1;
            }
        }
    }
    std::vector<bench::scale_point> scale;
    if (options.instances > 0) {
        err << "quillon-bench: 1 to " << options.instances << " instances..." << Qt::endl;
        bench::scale_run instances(log, target, options);
        scale = instances.run();
        for (const auto& point : scale) {
            if (!point.result.error.isEmpty()) {
                err << "quillon-bench: " << point.instances << " instances: " << point.result.error << '\n';
                status = 1;
            }
        }
    }
    if (target.started_here && options.stop_broker) {
        bench::stop_private_broker();
    }
    out << "Service store: " << options.store_backend << '\n';
    bench::print_table(out, report);
    if (!scale.empty()) {
        out << "Instances sharing the uplinks (balancer, " << options.store_backend << " store, "
            << options.uplinks << " uplinks)\n";
        for (const auto& point : scale) {
            out << "  " << QString("%1 instance(s), uplinks/s").arg(point.instances).leftJustified(58, ' ')
                << QString::number(point.result.uplinks_per_s, 'f', 0) << '\n';
        }
    }
    out << bench::key_line(report) << Qt::endl;
    return status;
}
