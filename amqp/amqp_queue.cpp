#include "amqp/amqp_queue.h"

#include <QElapsedTimer>
#include <QTimer>
#include <algorithm>

#include "amqp/amqp_connection.h"

namespace amqp {

namespace {
constexpr int generation_shift = 48;
constexpr uint64_t broker_tag_mask = (uint64_t(1) << generation_shift) - 1;
// The longest one turn of telling of early deliveries keeps the event loop.
constexpr qint64 announce_budget_ms = 10;
}  // namespace

queue::queue(connection& conn, logger& log, const QString& name, QObject* parent)
    : QObject(parent), m_conn(conn), m_log(log), m_name(name), m_generation(conn.generation()) {
    connect(&m_conn, &connection::delivered, this, &queue::on_delivered);
    connect(&m_conn, &connection::channel_closed, this, &queue::on_channel_closed);
    connect(&m_conn, &connection::consumer_cancelled, this, &queue::on_consumer_cancelled);
    take_over_setup();
}

void queue::take_over_setup() {
    const link_plan& plan = m_conn.plan();
    const link_result& setup = m_conn.setup();
    if (!plan.queue || plan.queue->name != m_name || setup.queue_channel == 0) {
        return;
    }
    m_channel = setup.queue_channel;
    m_name = setup.declared_queue;
    m_preset_declared = true;
    for (const auto& binding : plan.queue->bindings) {
        m_preset_bindings.insert(binding);
    }
    m_preset_prefetch = plan.queue->prefetch;
    if (plan.queue->consume) {
        m_preset_consuming = true;
        m_consuming = true;
        m_consumer_tag = setup.consumer_tag;
    }
}

bool queue::is_current() const {
    return m_conn.is_connected() && m_conn.generation() == m_generation;
}

bool queue::usable(const char* operation) {
    if (is_current()) {
        return true;
    }
    log_line(m_log, Debug) << "amqp: queue " << m_name << ": " << operation
                           << " skipped, its connection is gone";
    return false;
}

bool queue::ensure_channel() {
    if (m_channel != 0 && m_conn.channel_open(m_channel)) {
        return true;
    }
    m_channel = m_conn.open_channel();
    return m_channel != 0;
}

// A queue that cannot be set up or consumed is set up again from the start on a new
// connection; the back-off keeps a persistent refusal from spinning.
void queue::fail(const QString& reason) {
    if (!is_current()) {
        return;  // the connection is gone already and has said why
    }
    log_line(m_log, Error) << "amqp: queue " << m_name << ": " << reason;
    m_conn.reset("queue " + m_name + " unusable");
}

void queue::declare(int options, const QVariantHash& arguments) {
    if (m_preset_declared) {
        m_preset_declared = false;
        QTimer::singleShot(0, this, [this] {
            if (usable("declare")) {
                log_line(m_log, Debug) << "amqp: queue " << m_name << " declared";
                Q_EMIT declared();
            }
        });
        return;
    }
    QTimer::singleShot(0, this, [this, options, arguments] {
        if (!usable("declare")) {
            return;
        }
        if (!ensure_channel()) {
            fail("no channel: " + m_conn.last_error());
            return;
        }
        QString declared_name;
        if (!m_conn.declare_queue(m_channel, m_name, options, arguments, &declared_name)) {
            fail("declare failed: " + m_conn.last_error());
            return;
        }
        if (!declared_name.isEmpty()) {
            m_name = declared_name;
        }
        log_line(m_log, Debug) << "amqp: queue " << m_name << " declared";
        Q_EMIT declared();
    });
}

void queue::bind(const QString& exchange, const QString& routing_key) {
    if (m_preset_bindings.remove(qMakePair(exchange, routing_key))) {
        QTimer::singleShot(0, this, [this, exchange, routing_key] {
            if (usable("bind")) {
                log_line(m_log, Debug) << "amqp: queue " << m_name << " bound to exchange " << exchange
                                       << " with key " << routing_key;
                Q_EMIT bound();
            }
        });
        return;
    }
    QTimer::singleShot(0, this, [this, exchange, routing_key] {
        if (!usable("bind")) {
            return;
        }
        if (!ensure_channel()) {
            fail("no channel: " + m_conn.last_error());
            return;
        }
        if (!m_conn.bind_queue(m_channel, m_name, exchange, routing_key)) {
            fail("bind to exchange " + exchange + " with key " + routing_key +
                 " failed: " + m_conn.last_error());
            return;
        }
        log_line(m_log, Debug) << "amqp: queue " << m_name << " bound to exchange " << exchange
                               << " with key " << routing_key;
        Q_EMIT bound();
    });
}

bool queue::qos(int prefetch_count, int prefetch_size) {
    if (!usable("qos")) {
        return false;
    }
    if (m_preset_prefetch == prefetch_count && prefetch_size == 0) {
        m_preset_prefetch = -1;
        return true;
    }
    if (!ensure_channel()) {
        fail("no channel: " + m_conn.last_error());
        return false;
    }
    const auto count = uint16_t(std::clamp(prefetch_count, 0, 65535));
    if (!m_conn.set_qos(m_channel, count, uint32_t(std::max(0, prefetch_size)))) {
        fail("qos failed: " + m_conn.last_error());
        return false;
    }
    return true;
}

bool queue::consume(int options) {
    if (!usable("consume")) {
        return false;
    }
    if (m_preset_consuming) {
        m_preset_consuming = false;
        log_line(m_log, Debug) << "amqp: consuming queue " << m_name << " as " << m_consumer_tag;
        // Deliveries may have come in before the owner listened: tell of each of them
        // once the owner has connected (it does so right after this call).
        QTimer::singleShot(0, this, [this] { announce_buffered(m_buffer.size()); });
        return true;
    }
    if (m_consuming) {
        log_line(m_log, Debug) << "amqp: queue " << m_name << " is consumed already";
        return false;
    }
    if (!ensure_channel()) {
        fail("no channel: " + m_conn.last_error());
        return false;
    }
    if (!m_conn.consume(m_channel, m_name, options & NoLocal, options & NoAck, options & ConsumeExclusive,
                        &m_consumer_tag)) {
        fail("consume failed: " + m_conn.last_error());
        return false;
    }
    m_consuming = true;
    log_line(m_log, Debug) << "amqp: consuming queue " << m_name << " as " << m_consumer_tag;
    return true;
}

bool queue::cancel() {
    if (!usable("cancel")) {
        return false;
    }
    if (!m_consuming) {
        log_line(m_log, Debug) << "amqp: queue " << m_name << " is not consumed, nothing to cancel";
        return false;
    }
    if (!m_conn.cancel(m_channel, m_consumer_tag)) {
        fail("cancel failed: " + m_conn.last_error());
        return false;
    }
    m_consuming = false;
    log_line(m_log, Debug) << "amqp: consumer " << m_consumer_tag << " of queue " << m_name << " cancelled";
    return true;
}

bool queue::split_tag(uint64_t tag, uint64_t* broker_tag, const char* operation) {
    if (!usable(operation)) {
        return false;
    }
    if ((tag >> generation_shift) != (m_generation & 0xFFFF)) {
        log_line(m_log, Warning) << "amqp: queue " << m_name << ": " << operation << " of delivery " << tag
                                 << " from an earlier connection dropped; the broker delivers it again";
        return false;
    }
    *broker_tag = tag & broker_tag_mask;
    return true;
}

bool queue::ack(uint64_t delivery_tag, bool multiple) {
    uint64_t broker_tag = 0;
    return split_tag(delivery_tag, &broker_tag, "ack") && m_conn.ack(m_channel, broker_tag, multiple);
}

bool queue::reject(uint64_t delivery_tag, bool requeue) {
    uint64_t broker_tag = 0;
    return split_tag(delivery_tag, &broker_tag, "reject") && m_conn.reject(m_channel, broker_tag, requeue);
}

// Tells of `pending` buffered deliveries, for at most a turn's budget at a time, so that
// a full prefetch window that came in early does not keep the event loop to itself.
void queue::announce_buffered(int pending) {
    QElapsedTimer turn;
    turn.start();
    while (pending > 0 && !m_buffer.isEmpty()) {
        if (turn.elapsed() >= announce_budget_ms) {
            QTimer::singleShot(0, this, [this, pending] { announce_buffered(pending); });
            return;
        }
        --pending;
        Q_EMIT messageReceived();
    }
}

message queue::dequeue() {
    return m_buffer.isEmpty() ? message{} : m_buffer.dequeue();
}

void queue::on_delivered(const amqp::message& msg) {
    if (msg.channel != m_channel || m_channel == 0 || !is_current()) {
        return;
    }
    message stamped = msg;
    stamped.delivery_tag =
        (uint64_t(m_generation & 0xFFFF) << generation_shift) | (msg.delivery_tag & broker_tag_mask);
    m_buffer.enqueue(stamped);
    Q_EMIT messageReceived();
}

void queue::on_channel_closed(uint16_t channel, int code, const QString& text) {
    if (channel != m_channel || !is_current()) {
        return;
    }
    m_consuming = false;
    // Off the library's call stack: the connection is in the middle of a read or request.
    QTimer::singleShot(0, this, [this, code, text] {
        fail("channel closed by the broker: " + QString::number(code) + " " + text);
    });
}

void queue::on_consumer_cancelled(uint16_t channel, const QString& consumer_tag) {
    if (channel != m_channel || !is_current()) {
        return;
    }
    m_consuming = false;
    QTimer::singleShot(
        0, this, [this, consumer_tag] { fail("consumer " + consumer_tag + " cancelled by the broker"); });
}

}  // namespace amqp
