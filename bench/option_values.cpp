#include "bench/option_values.h"

#include <QTextStream>

namespace bench {

namespace {
void critical_only(QtMsgType type, const QMessageLogContext&, const QString& text) {
    if (type == QtCriticalMsg || type == QtFatalMsg) {
        QTextStream(stderr) << text << '\n';
    }
}
}  // namespace

void quiet_qt_messages() {
    qInstallMessageHandler(critical_only);
}

}  // namespace bench
