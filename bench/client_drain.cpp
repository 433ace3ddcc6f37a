#include "bench/client_drain.h"

#include <QUuid>

#include "amqp/amqp_connection.h"
#include "amqp/amqp_queue.h"
#include "bench/proc_stats.h"
#include "bench/wait.h"

namespace bench {

client_drain::client_drain(logger& log, const broker& target, const QString& exchange,
                           const QStringList& keys)
    : m_log(log),
      m_exchange(exchange),
      m_keys(keys),
      m_name("bench_drain_" + QUuid::createUuid().toString(QUuid::Id128).left(12)),
      m_connection(std::make_unique<amqp::connection>(log)) {
    m_connection->set_virtual_host(target.vhost);
    m_connection->connect_to_host(target.url);
}

client_drain::~client_drain() = default;

bool client_drain::wait_ready(int timeout_ms) {
    if (!m_ready && wait_until([this] { return m_connection->is_connected(); }, timeout_ms)) {
        m_ready = set_up();
    }
    return m_ready;
}

bool client_drain::set_up() {
    const uint16_t channel = m_connection->open_channel();
    if (channel == 0 ||
        !m_connection->declare_queue(channel, m_name, amqp::queue::Exclusive | amqp::queue::AutoDelete, {})) {
        return false;
    }
    for (const QString& key : m_keys) {
        if (!m_connection->bind_queue(channel, m_name, m_exchange, key)) {
            return false;
        }
    }
    m_queue = m_connection->create_queue(m_name);
    QObject::connect(m_queue, &amqp::queue::messageReceived, m_queue, [this] { drain_buffer(); });
    return m_queue->consume(amqp::queue::NoAck);
}

void client_drain::drain_buffer() {
    while (m_queue && !m_queue->isEmpty()) {
        const amqp::message msg = m_queue->dequeue();
        ++m_received;
        m_bytes += uint64_t(msg.payload.size());
        if (m_handler) {
            m_handler(msg, now_us());
        }
    }
}

}  // namespace bench
