#pragma once

#include <QObject>
#include <QQueue>
#include <QSet>
#include <QString>
#include <QVariantHash>
#include <cstdint>

#include "amqp/amqp_message.h"
#include "app/logger.h"

namespace amqp {

class connection;

// One queue on its own channel of one connection. declare() and bind() run from the
// event loop and report with declared() / bound(); the other operations act at once.
// Deliveries are buffered until dequeued. The object serves the connection it was
// created on: once that is lost, every operation is a logged no-op.
//
// A queue that the connection's set-up plan has already declared, bound and consumed
// answers those requests at once from what the set-up did, without asking the broker.
//
// Delivery tags handed out carry the connection's generation in their top 16 bits, so
// an acknowledgement that outlived its connection is dropped here instead of hitting a
// different message that the broker numbered alike on the new connection.
class queue : public QObject {
    Q_OBJECT
public:
    enum declare_option {
        Passive = 0x01,
        Durable = 0x02,
        Exclusive = 0x04,
        AutoDelete = 0x08,
        NoWait = 0x10
    };
    enum consume_option { NoLocal = 0x01, NoAck = 0x02, ConsumeExclusive = 0x04 };

    queue(connection& conn, logger& log, const QString& name, QObject* parent);
    Q_DISABLE_COPY(queue)

    const QString& name() const { return m_name; }
    bool is_consuming() const { return m_consuming; }
    bool is_current() const;  // its connection is still the one it was made for

    void declare(int options, const QVariantHash& arguments);
    void bind(const QString& exchange, const QString& routing_key);
    bool qos(int prefetch_count, int prefetch_size = 0);
    bool consume(int options = 0);
    bool cancel();
    bool ack(uint64_t delivery_tag, bool multiple);
    bool reject(uint64_t delivery_tag, bool requeue);

    bool isEmpty() const { return m_buffer.isEmpty(); }
    message dequeue();

Q_SIGNALS:
    void declared();
    void bound();
    void messageReceived();

private:
    void on_delivered(const amqp::message& msg);
    void on_channel_closed(uint16_t channel, int code, const QString& text);
    void on_consumer_cancelled(uint16_t channel, const QString& consumer_tag);
    bool usable(const char* operation);
    bool ensure_channel();
    void fail(const QString& reason);
    bool split_tag(uint64_t tag, uint64_t* broker_tag, const char* operation);
    void take_over_setup();
    void announce_buffered(int pending);

    connection& m_conn;
    logger& m_log;
    QString m_name;
    unsigned m_generation = 0;
    uint16_t m_channel = 0;
    bool m_consuming = false;
    QString m_consumer_tag;
    QQueue<message> m_buffer;
    // What the connection's set-up did for this queue.
    bool m_preset_declared = false;
    QSet<QPair<QString, QString>> m_preset_bindings;
    int m_preset_prefetch = -1;
    bool m_preset_consuming = false;
};

}  // namespace amqp
