#pragma once

#include <sys/types.h>
#include <QSet>
#include <QString>
#include <QStringList>

namespace faults {

// The private test node's own controls, through scripts/test-broker (rabbitmqctl under
// the node's name and cookie). Each call starts an Erlang VM: a second or more apiece.
class broker_control {
public:
    // Runs `test-broker ctl <arguments>`; the output is kept for output().
    bool ctl(const QStringList& arguments, int timeout_ms = 120000);
    // Stops and starts the broker application inside the running node.
    bool restart();
    // Dead-letters what is rejected from the queues whose name matches `pattern` to
    // `exchange` (a policy; it stays on the node).
    bool dead_letter(const QString& name, const QString& pattern, const QString& exchange);
    // The broker's process ids of the connections whose client port is one of `ports`.
    bool connections_from(const QSet<int>& ports, QStringList& out);
    bool close_connection(const QString& connection, const QString& reason);

    const QString& output() const { return m_output; }
    const QString& error() const { return m_error; }

private:
    bool run(const QStringList& arguments, int timeout_ms);

    QString m_output;
    QString m_error;
};

// Local ports of the TCP sockets a process holds open (from /proc).
QSet<int> tcp_ports_of(pid_t pid);

}  // namespace faults
