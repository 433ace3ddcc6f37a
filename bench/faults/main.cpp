// quillon-faults: uplinks streamed to the service while faults are injected, then every
// uplink accounted for. See docs/reliability.md.
#include <QCoreApplication>
#include <QTextStream>

#include "bench/faults/fault_run.h"
#include "bench/faults/faults_options.h"
#include "bench/faults/faults_report.h"
#include "bench/option_values.h"

int main(int argc, char* argv[]) {
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName("quillon-faults");
    bench::quiet_qt_messages();
    QTextStream out(stdout);
    QTextStream err(stderr);

    faults::faults_options options;
    QString message;
    bool help = false;
    if (!faults::parse_options(app.arguments(), options, message, help)) {
        (help ? out : err) << (help ? "" : "quillon-faults: ") << message << '\n';
        return help ? 0 : 2;
    }
    faults::fault_run run(options, err);
    const bool ran = run.run();
    if (!ran) {
        err << "quillon-faults: " << run.error() << '\n';
    }
    faults::print_table(out, run.report());
    out << faults::key_line(run.report()) << Qt::endl;
    if (!ran) {
        return 1;
    }
    const faults::fault_counts& counts = run.report().counts;
    return counts.lost == 0 && counts.acked_unstored == 0 ? 0 : 1;
}
