// The protocol operations of amqp::connection: channels, declarations, consumers,
// acknowledgements and publishing.
#include <amqp.h>
#include <amqp_framing.h>

#include "amqp/amqp_bytes.h"
#include "amqp/amqp_connection.h"
#include "amqp/amqp_table.h"

namespace amqp {

// Every reply is looked at: a refusal closes the channel (the broker's text is logged
// and kept), a connection.close or a library failure (a time-out included) drops the
// connection.
bool connection::check_reply(uint16_t channel, const char* what) {
    const amqp_rpc_reply_t reply = amqp_get_rpc_reply(m_state);
    if (reply.reply_type == AMQP_RESPONSE_NORMAL) {
        schedule_drain();
        return true;
    }
    if (reply.reply_type == AMQP_RESPONSE_SERVER_EXCEPTION && reply.reply.id == AMQP_CHANNEL_CLOSE_METHOD) {
        const auto* c = static_cast<amqp_channel_close_t*>(reply.reply.decoded);
        const int code = c->reply_code;
        const QString text = text_of(c->reply_text);
        log_line(m_log, Error) << "amqp: " << what << " refused by the broker: " << QString::number(code)
                               << " " << text;
        close_channel_after_broker(channel, code, text, false);
        schedule_drain();
        return false;
    }
    if (reply.reply_type == AMQP_RESPONSE_SERVER_EXCEPTION &&
        reply.reply.id == AMQP_CONNECTION_CLOSE_METHOD) {
        const auto* c = static_cast<amqp_connection_close_t*>(reply.reply.decoded);
        const QString text = QString::number(c->reply_code) + " " + text_of(c->reply_text);
        amqp_connection_close_ok_t ok{};
        amqp_send_method(m_state, 0, AMQP_CONNECTION_CLOSE_OK_METHOD, &ok);
        lose(QString(what) + " answered by connection.close: " + text);
        return false;
    }
    if (reply.reply_type == AMQP_RESPONSE_LIBRARY_EXCEPTION) {
        lose(QString(what) + " failed: " + QString::fromUtf8(amqp_error_string2(reply.library_error)));
        return false;
    }
    lose(QString(what) + " got no usable reply");
    return false;
}

bool connection::check_status(int status, const char* what) {
    if (status == AMQP_STATUS_OK) {
        schedule_drain();
        return true;
    }
    lose(QString(what) + " failed: " + QString::fromUtf8(amqp_error_string2(status)));
    return false;
}

uint16_t connection::open_channel() {
    if (!m_state) {
        m_last_error = "not connected";
        return 0;
    }
    // Held through the request and its reply: the heartbeat keeper must not write between.
    std::lock_guard<std::recursive_mutex> io(m_io);
    const int max = amqp_get_channel_max(m_state) > 0 ? amqp_get_channel_max(m_state) : 65535;
    uint16_t channel = 0;
    for (int tries = 0; tries < max; ++tries) {
        const uint16_t candidate = m_next_channel;
        m_next_channel = uint16_t(m_next_channel >= max ? 1 : m_next_channel + 1);
        if (!m_open_channels.contains(candidate)) {
            channel = candidate;
            break;
        }
    }
    if (channel == 0) {
        m_last_error = "no free channel";
        log_line(m_log, Error) << "amqp: no free channel on " << display_url();
        return 0;
    }
    uncork();  // the request must leave before its reply is awaited
    amqp_channel_open(m_state, channel);
    if (!check_reply(channel, "channel.open")) {
        return 0;
    }
    m_open_channels.insert(channel);
    return channel;
}

bool connection::declare_queue(uint16_t channel, const QString& name, int options,
                               const QVariantHash& arguments, QString* declared_name) {
    if (!m_state) {
        m_last_error = "not connected";
        return false;
    }
    // Held through the request and its reply: the heartbeat keeper must not write between.
    std::lock_guard<std::recursive_mutex> io(m_io);
    table_builder args(&m_log);
    const QByteArray queue_name = name.toUtf8();
    // No-wait (0x10) is not offered by the library's declare: the reply is awaited anyway.
    uncork();  // the request must leave before its reply is awaited
    const auto* ok = amqp_queue_declare(m_state, channel, bytes_of(queue_name), options & 0x01 ? 1 : 0,
                                        options & 0x02 ? 1 : 0, options & 0x04 ? 1 : 0,
                                        options & 0x08 ? 1 : 0, args.build(arguments));
    if (!check_reply(channel, "queue.declare")) {
        return false;
    }
    if (declared_name) {
        *declared_name = ok ? text_of(ok->queue) : name;
    }
    return true;
}

bool connection::declare_exchange(uint16_t channel, const QString& name, const QString& type, bool durable) {
    if (!m_state) {
        m_last_error = "not connected";
        return false;
    }
    // Held through the request and its reply: the heartbeat keeper must not write between.
    std::lock_guard<std::recursive_mutex> io(m_io);
    uncork();  // the request must leave before its reply is awaited
    amqp_exchange_declare(m_state, channel, bytes_of(name.toUtf8()), bytes_of(type.toUtf8()), 0,
                          durable ? 1 : 0, 0, 0, amqp_empty_table);
    return check_reply(channel, "exchange.declare");
}

bool connection::bind_queue(uint16_t channel, const QString& queue, const QString& exchange,
                            const QString& key) {
    if (!m_state) {
        m_last_error = "not connected";
        return false;
    }
    // Held through the request and its reply: the heartbeat keeper must not write between.
    std::lock_guard<std::recursive_mutex> io(m_io);
    uncork();  // the request must leave before its reply is awaited
    amqp_queue_bind(m_state, channel, bytes_of(queue.toUtf8()), bytes_of(exchange.toUtf8()),
                    bytes_of(key.toUtf8()), amqp_empty_table);
    return check_reply(channel, "queue.bind");
}

bool connection::set_qos(uint16_t channel, uint16_t prefetch_count, uint32_t prefetch_size) {
    if (!m_state) {
        m_last_error = "not connected";
        return false;
    }
    // Held through the request and its reply: the heartbeat keeper must not write between.
    std::lock_guard<std::recursive_mutex> io(m_io);
    // Per consumer (global false).
    uncork();  // the request must leave before its reply is awaited
    amqp_basic_qos(m_state, channel, prefetch_size, prefetch_count, 0);
    return check_reply(channel, "basic.qos");
}

bool connection::consume(uint16_t channel, const QString& queue, bool no_local, bool no_ack, bool exclusive,
                         QString* consumer_tag) {
    if (!m_state) {
        m_last_error = "not connected";
        return false;
    }
    // Held through the request and its reply: the heartbeat keeper must not write between.
    std::lock_guard<std::recursive_mutex> io(m_io);
    uncork();  // the request must leave before its reply is awaited
    const auto* ok =
        amqp_basic_consume(m_state, channel, bytes_of(queue.toUtf8()), amqp_empty_bytes, no_local ? 1 : 0,
                           no_ack ? 1 : 0, exclusive ? 1 : 0, amqp_empty_table);
    if (!check_reply(channel, "basic.consume")) {
        return false;
    }
    if (consumer_tag && ok) {
        *consumer_tag = text_of(ok->consumer_tag);
    }
    return true;
}

bool connection::cancel(uint16_t channel, const QString& consumer_tag) {
    if (!m_state) {
        m_last_error = "not connected";
        return false;
    }
    // Held through the request and its reply: the heartbeat keeper must not write between.
    std::lock_guard<std::recursive_mutex> io(m_io);
    uncork();  // the request must leave before its reply is awaited
    amqp_basic_cancel(m_state, channel, bytes_of(consumer_tag.toUtf8()));
    return check_reply(channel, "basic.cancel");
}

bool connection::ack(uint16_t channel, uint64_t delivery_tag, bool multiple) {
    if (!m_state) {
        m_last_error = "not connected";
        return false;
    }
    cork();
    int status = 0;
    {
        std::lock_guard<std::recursive_mutex> io(m_io);
        status = amqp_basic_ack(m_state, channel, delivery_tag, multiple ? 1 : 0);
    }
    return check_status(status, "basic.ack");
}

bool connection::reject(uint16_t channel, uint64_t delivery_tag, bool requeue) {
    if (!m_state) {
        m_last_error = "not connected";
        return false;
    }
    cork();
    int status = 0;
    {
        std::lock_guard<std::recursive_mutex> io(m_io);
        status = amqp_basic_reject(m_state, channel, delivery_tag, requeue ? 1 : 0);
    }
    return check_status(status, "basic.reject");
}

bool connection::publish(uint16_t channel, const QString& exchange, const QByteArray& routing_key,
                         const QByteArray& body, const QString& content_type) {
    if (!m_state) {
        m_last_error = "not connected";
        return false;
    }
    amqp_basic_properties_t props{};
    const QByteArray type = content_type.toUtf8();
    if (!content_type.isEmpty()) {
        props._flags = AMQP_BASIC_CONTENT_TYPE_FLAG;
        props.content_type = bytes_of(type);
    }
    const QByteArray user = m_user_id.toUtf8();
    if (!user.isEmpty()) {
        props._flags |= AMQP_BASIC_USER_ID_FLAG;
        props.user_id = bytes_of(user);
    }
    const QByteArray exchange_name = exchange.toUtf8();
    cork();
    int status = 0;
    {
        std::lock_guard<std::recursive_mutex> io(m_io);
        status = amqp_basic_publish(m_state, channel, bytes_of(exchange_name), bytes_of(routing_key), 0, 0,
                                    &props, bytes_of(body));
    }
    return check_status(status, "basic.publish");
}

}  // namespace amqp
