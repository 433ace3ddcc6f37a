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
    // Against the private cluster (scripts/test-cluster) instead: rabbitmqctl through its
    // node 1, which sees the whole cluster.
    void use_cluster() { m_cluster = true; }
    bool cluster() const { return m_cluster; }
    // The cluster's own commands: start (if it is not running), stop-node K, start-node K.
    bool cluster_script(const QStringList& arguments, int timeout_ms = 300000);
    // The AMQP URL of cluster node k (1..3).
    QString cluster_url(int k);
    // The node that leads a quorum queue of /api (empty when it cannot be read).
    QString queue_leader(const QString& queue);

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
    bool m_cluster = false;
};

// Local ports of the TCP sockets a process holds open (from /proc).
QSet<int> tcp_ports_of(pid_t pid);

}  // namespace faults
