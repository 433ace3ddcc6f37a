#pragma once

// Declarations and counts on the private broker, made by the test itself over a blocking
// connection of its own, independent of the tool under test.

#include <QByteArray>
#include <QString>
#include <QVariantHash>
#include <cstdint>

#include "amqp/broker_link.h"

namespace tools_test {

class broker_admin {
public:
    broker_admin();  // connects to the private broker, vhost /api
    broker_admin(const broker_admin&) = delete;
    broker_admin& operator=(const broker_admin&) = delete;

    bool connected() const { return m_connected; }
    const QString& error() const { return m_link.error(); }

    bool declare_exchange(const QString& name, const QString& type) {
        return m_link.declare_exchange(name, type, false);
    }
    bool declare_queue(const QString& name, bool durable, const QVariantHash& arguments = {}) {
        return m_link.declare_queue(name, durable, arguments);
    }
    bool bind(const QString& queue, const QString& exchange, const QString& key) {
        return m_link.bind_queue(queue, exchange, key);
    }
    bool delete_queue(const QString& name) { return m_link.delete_queue(name); }
    bool delete_exchange(const QString& name) { return m_link.delete_exchange(name); }
    // Messages ready in the queue; -1 when it cannot be asked (no such queue).
    int64_t message_count(const QString& name);
    bool publish(const QString& exchange, const QString& key, const QByteArray& body) {
        return m_link.publish(exchange, key, body);
    }

private:
    amqp::broker_link m_link;
    bool m_connected = false;
};

}  // namespace tools_test
