#pragma once

// Declarations and counts on the private broker, made by the test itself with blocking
// rabbitmq-c calls, independent of the tool under test.

#include <QByteArray>
#include <QString>
#include <QVariantHash>
#include <cstdint>

struct amqp_connection_state_t_;

namespace tools_test {

class broker_admin {
public:
    broker_admin();  // connects to the private broker, vhost /api
    ~broker_admin();
    broker_admin(const broker_admin&) = delete;
    broker_admin& operator=(const broker_admin&) = delete;

    bool connected() const { return m_state != nullptr; }
    const QString& error() const { return m_error; }

    bool declare_exchange(const QString& name, const QString& type);
    bool declare_queue(const QString& name, bool durable, const QVariantHash& arguments = {});
    bool bind(const QString& queue, const QString& exchange, const QString& key);
    bool delete_queue(const QString& name);
    bool delete_exchange(const QString& name);
    // Messages ready in the queue; -1 when it cannot be asked (no such queue).
    int64_t message_count(const QString& name);
    bool publish(const QString& exchange, const QString& key, const QByteArray& body);

private:
    bool check(const QString& what);

    amqp_connection_state_t_* m_state = nullptr;
    uint16_t m_channel = 1;
    QString m_error;
};

}  // namespace tools_test
