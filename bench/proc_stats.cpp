#include "bench/proc_stats.h"

#include <unistd.h>
#include <QDir>
#include <QFile>
#include <QStringList>
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

double cpu_seconds(pid_t pid) {
    const QByteArray stat = read_proc(pid, "stat");
    // The command name in parentheses may hold blanks: fields are counted after it.
    const int close = stat.lastIndexOf(')');
    if (pid <= 0 || close < 0) {
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

double run_queue_wait_seconds(pid_t pid) {
    if (pid <= 0) {
        return 0.0;
    }
    double waited_ns = 0;
    const QStringList tasks =
        QDir(QString("/proc/%1/task").arg(pid)).entryList(QDir::Dirs | QDir::NoDotAndDotDot);
    for (const QString& task : tasks) {
        QFile file(QString("/proc/%1/task/%2/schedstat").arg(pid).arg(task));
        if (file.open(QIODevice::ReadOnly)) {
            // on-CPU time, run-queue time, time slices; in nanoseconds
            waited_ns += file.readAll().split(' ').value(1).toDouble();
        }
    }
    return waited_ns / 1e9;
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
