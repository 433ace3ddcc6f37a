#include "bench/wait.h"

#include <QEventLoop>
#include <QTimer>

namespace bench {

// A nested event loop wakes at once for broker traffic; the condition is looked at on
// a short period.
bool wait_until(const std::function<bool()>& done, int timeout_ms) {
    if (done()) {
        return true;
    }
    QEventLoop loop;
    QTimer check;
    QTimer deadline;
    deadline.setSingleShot(true);
    QObject::connect(&check, &QTimer::timeout, &loop, [&] {
        if (done()) {
            loop.quit();
        }
    });
    QObject::connect(&deadline, &QTimer::timeout, &loop, &QEventLoop::quit);
    check.start(5);
    deadline.start(timeout_ms);
    loop.exec();
    return done();
}

void pause_ms(int ms) {
    QEventLoop loop;
    QTimer::singleShot(ms, &loop, &QEventLoop::quit);
    loop.exec();
}

}  // namespace bench
