// quillon-netsim: plays the network server on a broker for a fleet of simulated meters.
#include <QCoreApplication>
#include <QTextStream>

#include "netsim_app.h"
#include "netsim_options.h"

namespace {

// The broker endpoints report through qDebug as well as through their log: only
// warnings and errors reach stderr.
void qt_messages(QtMsgType type, const QMessageLogContext&, const QString& text) {
    if (type != QtDebugMsg && type != QtInfoMsg) {
        QTextStream(stderr) << "quillon-netsim: " << text << '\n';
    }
}

}  // namespace

int main(int argc, char* argv[]) {
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName("quillon-netsim");
    QCoreApplication::setApplicationVersion(QUILLON_VERSION);
    qInstallMessageHandler(qt_messages);

    netsim_options options;
    QString error;
    if (!parse_netsim_options(app.arguments().mid(1), options, error)) {
        QTextStream(stderr) << "quillon-netsim: " << error << " (see --help)\n";
        return 2;
    }
    if (!options.help_text.isEmpty()) {
        QTextStream(stdout) << options.help_text;
        return 0;
    }
    netsim_app simulator(options);
    return simulator.run();
}
