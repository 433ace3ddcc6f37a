#include "bench/faults/broker_control.h"

#include <unistd.h>
#include <QDir>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>

namespace faults {

bool broker_control::run(const QStringList& arguments, int timeout_ms) {
    QProcess script;
    script.start(m_cluster ? QUILLON_TEST_CLUSTER : QUILLON_TEST_BROKER, arguments);
    const bool finished = script.waitForFinished(timeout_ms);
    m_output = QString::fromUtf8(script.readAllStandardOutput());
    if (!finished) {
        script.kill();
        script.waitForFinished(5000);
        m_error = script.program() + " " + arguments.join(' ') + ": no answer in time";
        return false;
    }
    if (script.exitStatus() != QProcess::NormalExit || script.exitCode() != 0) {
        m_error = script.program() + " " + arguments.join(' ') + ": " +
                  QString::fromUtf8(script.readAllStandardError()).trimmed();
        return false;
    }
    return true;
}

bool broker_control::ctl(const QStringList& arguments, int timeout_ms) {
    return run((m_cluster ? QStringList{"ctl", "1"} : QStringList{"ctl"}) + arguments, timeout_ms);
}

bool broker_control::cluster_script(const QStringList& arguments, int timeout_ms) {
    m_cluster = true;
    return run(arguments, timeout_ms);
}

QString broker_control::cluster_url(int k) {
    return cluster_script({"url", QString::number(k)}, 10000) ? m_output.trimmed() : QString();
}

bool broker_control::restart() {
    return run({"restart"}, 300000);
}

bool broker_control::dead_letter(const QString& name, const QString& pattern, const QString& exchange) {
    const QByteArray definition =
        QJsonDocument(QJsonObject{{"dead-letter-exchange", exchange}}).toJson(QJsonDocument::Compact);
    return ctl({"set_policy", "-p", "/api", "--priority", "10", "--apply-to", "queues", name, pattern,
                QString::fromUtf8(definition)});
}

bool broker_control::connections_from(const QSet<int>& ports, QStringList& out) {
    out.clear();
    if (!ctl({"list_connections", "--no-table-headers", "peer_port", "pid"})) {
        return false;
    }
    for (const QString& line : m_output.split('\n', Qt::SkipEmptyParts)) {
        const QStringList fields = line.split('\t');
        if (fields.size() == 2 && ports.contains(fields[0].trimmed().toInt())) {
            out << fields[1].trimmed();
        }
    }
    return true;
}

QString broker_control::queue_leader(const QString& queue) {
    if (!ctl({"list_queues", "-p", "/api", "--no-table-headers", "name", "leader"})) {
        return QString();
    }
    for (const QString& line : m_output.split('\n', Qt::SkipEmptyParts)) {
        const QStringList fields = line.split('\t');
        if (fields.size() == 2 && fields[0].trimmed() == queue) {
            return fields[1].trimmed();
        }
    }
    return QString();
}

bool broker_control::close_connection(const QString& connection, const QString& reason) {
    return ctl({"close_connection", connection, reason});
}

QSet<int> tcp_ports_of(pid_t pid) {
    // The process's sockets by inode, then their local ports in the kernel's tables.
    QSet<QString> inodes;
    const QDir fds(QString("/proc/%1/fd").arg(pid));
    for (const QString& fd : fds.entryList(QDir::Files | QDir::System)) {
        char target[256] = {};
        const ssize_t n =
            ::readlink(QFile::encodeName(fds.filePath(fd)).constData(), target, sizeof target - 1);
        const QString name = QString::fromLatin1(target, n > 0 ? int(n) : 0);
        if (name.startsWith("socket:[")) {
            inodes.insert(name.mid(8, name.size() - 9));
        }
    }
    QSet<int> ports;
    for (const char* table : {"/proc/net/tcp", "/proc/net/tcp6"}) {
        QFile file(table);
        if (!file.open(QIODevice::ReadOnly)) {
            continue;
        }
        file.readLine();  // the header
        while (!file.atEnd()) {
            const QStringList fields = QString::fromLatin1(file.readLine()).split(' ', Qt::SkipEmptyParts);
            // sl local_address rem_address st tx:rx tr:when retrnsmt uid timeout inode
            if (fields.size() > 9 && inodes.contains(fields[9])) {
                ports.insert(fields[1].section(':', -1).toInt(nullptr, 16));
            }
        }
    }
    return ports;
}

}  // namespace faults
