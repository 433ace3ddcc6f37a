#include "engine/debug_timing.h"

#include <QDebug>

namespace debug_timing {

bool enabled() {
    return !qEnvironmentVariableIsEmpty("QQUILLON_DEBUG");
}

void report(const char* format, const QElapsedTimer& started) {
    if (enabled()) {
        qDebug().noquote() << QString::fromLatin1(format).arg(started.elapsed());
    }
}

}  // namespace debug_timing
