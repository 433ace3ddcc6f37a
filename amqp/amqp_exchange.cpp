#include "amqp/amqp_exchange.h"

#include "amqp/amqp_connection.h"

namespace amqp {

exchange::exchange(connection& conn, logger& log, const QString& name, QObject* parent)
    : QObject(parent), m_conn(conn), m_log(log), m_name(name), m_generation(conn.generation()) {
    // The channel that the connection's set-up opened for publishing, if any.
    if (m_conn.plan().publish_channel) {
        m_channel = m_conn.setup().publish_channel;
    }
}

bool exchange::publish(const QByteArray& body, const QByteArray& routing_key, const QString& content_type) {
    if (!m_conn.is_connected() || m_conn.generation() != m_generation) {
        log_line(m_log, Debug) << "amqp: exchange " << m_name << ": publish skipped, its connection is gone";
        return false;
    }
    if (m_channel == 0 || !m_conn.channel_open(m_channel)) {
        m_channel = m_conn.open_channel();
        if (m_channel == 0) {
            log_line(m_log, Error) << "amqp: exchange " << m_name
                                   << ": no channel to publish on: " << m_conn.last_error();
            return false;
        }
    }
    return m_conn.publish(m_channel, m_name, routing_key, body, content_type);
}

}  // namespace amqp
