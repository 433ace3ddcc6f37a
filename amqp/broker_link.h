#pragma once

#include <QByteArray>
#include <QString>
#include <QVariantHash>
#include <cstdint>
#include <vector>

struct amqp_connection_state_t_;

namespace amqp {

// A blocking broker connection for tools and tests that administer or check the broker
// (declare, count, publish with confirms): synchronous rabbitmq-c on one channel, with no
// heartbeats (it may sit idle while the broker restarts). Apart from the service's
// endpoints on purpose: a check made through it does not depend on the code it checks.
// Any failure drops the connection; the next call opens it again.
class broker_link {
public:
    struct outgoing {
        QByteArray routing_key;
        QByteArray body;
    };

    broker_link(const QString& url, const QString& vhost, bool confirms);
    ~broker_link();
    broker_link(const broker_link&) = delete;
    broker_link& operator=(const broker_link&) = delete;

    // Connects, trying again until the time is up.
    bool open(int timeout_ms);
    void close();
    bool is_open() const { return m_conn != nullptr; }
    const QString& error() const { return m_error; }

    bool declare_exchange(const QString& name, const QString& type, bool durable = true);
    bool delete_exchange(const QString& name);
    bool declare_queue(const QString& name, bool durable = true, const QVariantHash& arguments = {});
    bool bind_queue(const QString& queue, const QString& exchange, const QString& key);
    bool delete_queue(const QString& name);
    // Ready messages and consumers of a queue (a passive declare).
    bool queue_counts(const QString& name, uint32_t& messages, uint32_t& consumers);
    // Takes every ready message off the queue; their bodies are appended to `out`.
    bool take_all(const QString& queue, std::vector<QByteArray>& out);

    // Publishes one message as text/plain, without waiting for the broker.
    bool publish(const QString& exchange, const QString& routing_key, const QByteArray& body);
    // Publishes persistent, mandatory messages and waits for the broker's confirms (the
    // link must have been made with confirms). Returns false when the link failed before
    // every message was confirmed; `unconfirmed` then holds the indexes the broker did not
    // confirm, including those it returned as unroutable or refused.
    bool publish_confirmed(const QString& exchange, const std::vector<outgoing>& batch,
                           std::vector<size_t>& unconfirmed, int timeout_ms = 30000);

private:
    bool connect_once();
    bool ensure_open();
    bool check_rpc(const char* what);
    bool fail(const QString& why);

    QString m_url;
    QString m_vhost;
    bool m_confirms = false;
    amqp_connection_state_t_* m_conn = nullptr;
    uint64_t m_next_tag = 1;
    QString m_error;
};

}  // namespace amqp
