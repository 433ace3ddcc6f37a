#include "bench/proc_stats.h"

#include <unistd.h>
#include <QDir>
#include <QFile>
#include <QStringList>
#include <algorithm>
#include <ctime>

namespace bench {

namespace {

QByteArray read_proc(pid_t pid, const char* entry) {
    QFile file(QString("/proc/%1/%2").arg(pid).arg(entry));
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

double status_kib(pid_t pid, const QByteArray& field) {
    for (const QByteArray& line : read_proc(pid, "status").split('\n')) {
        if (line.startsWith(field + ':')) {
            return line.mid(field.size() + 1).trimmed().split(' ').value(0).toDouble();
        }
    }
    return 0.0;
}

}  // namespace

namespace {

// One field of every live thread's schedstat (on-CPU time, run-queue time; nanoseconds),
// added up; -1 when the kernel keeps no schedstat.
double schedstat_seconds(pid_t pid, int field) {
    double total_ns = -1;
    const QStringList tasks =
        QDir(QString("/proc/%1/task").arg(pid)).entryList(QDir::Dirs | QDir::NoDotAndDotDot);
    for (const QString& task : tasks) {
        QFile file(QString("/proc/%1/task/%2/schedstat").arg(pid).arg(task));
        if (file.open(QIODevice::ReadOnly)) {
            total_ns = std::max(total_ns, 0.0) + file.readAll().split(' ').value(field).toDouble();
        }
    }
    return total_ns < 0 ? -1 : total_ns / 1e9;
}

double stat_cpu_seconds(pid_t pid) {
    const QByteArray stat = read_proc(pid, "stat");
    // The command name in parentheses may hold blanks: fields are counted after it.
    const int close = stat.lastIndexOf(')');
    if (close < 0) {
        return 0.0;
    }
    const QList<QByteArray> fields = stat.mid(close + 2).split(' ');
    // Fields 14 (utime) and 15 (stime) of the line are 11 and 12 after the name.
    if (fields.size() < 13) {
        return 0.0;
    }
    const double ticks = double(sysconf(_SC_CLK_TCK));
    return (fields[11].toDouble() + fields[12].toDouble()) / ticks;
}

}  // namespace

// In nanoseconds from schedstat where the kernel keeps it: the clock ticks of
// /proc/<pid>/stat (10 ms) are too coarse for the pass-through's few milliseconds of a short
// run. Threads that have ended are not counted there; the service's threads live as long
// as it does.
double cpu_seconds(pid_t pid) {
    if (pid <= 0) {
        return 0.0;
    }
    const double precise = schedstat_seconds(pid, 0);
    return precise >= 0 ? precise : stat_cpu_seconds(pid);
}

double run_queue_wait_seconds(pid_t pid) {
    return pid > 0 ? std::max(0.0, schedstat_seconds(pid, 1)) : 0.0;
}

double resident_mib(pid_t pid) {
    return pid > 0 ? status_kib(pid, "VmRSS") / 1024.0 : 0.0;
}

double peak_resident_mib(pid_t pid) {
    return pid > 0 ? status_kib(pid, "VmHWM") / 1024.0 : 0.0;
}

int64_t now_us() {
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return int64_t(ts.tv_sec) * 1000000 + ts.tv_nsec / 1000;
}

pid_t find_process(const QString& comm, const QString& needle) {
    pid_t found = 0;
    int matches = 0;
    const QStringList entries = QDir("/proc").entryList(QDir::Dirs | QDir::NoDotAndDotDot);
    for (const QString& entry : entries) {
        bool numeric = false;
        const pid_t pid = pid_t(entry.toInt(&numeric));
        if (!numeric || QString::fromUtf8(read_proc(pid, "comm")).trimmed() != comm) {
            continue;
        }
        if (!needle.isEmpty()) {
            QByteArray command = read_proc(pid, "cmdline");
            command.replace('\0', ' ');
            if (command.contains(needle.toUtf8())) {
                return pid;
            }
            continue;
        }
        found = pid;
        ++matches;
    }
    return matches == 1 ? found : 0;
}

}  // namespace bench
