#include "amqp/replay_session.h"
#include "amqp/amqp_bytes.h"
#include "amqp/amqp_reply.h"

#include <amqp.h>
#include <amqp_framing.h>
#include <sys/time.h>

#include "amqp/amqp_fields.h"

namespace amqp {

replay_session::~replay_session() {
    close();
}

bool replay_session::fail(const QString& why) {
    m_error = why;
    return false;
}

bool replay_session::open(const amqp::link_settings& settings) {
    const amqp::link_result link = amqp::establish_link(settings, amqp::link_plan{});
    if (!link.state) {
        return fail(link.error);
    }
    m_state = link.state;
    m_confirm_timeout_ms = settings.rpc_timeout_ms;
    amqp_channel_open(m_state, m_channel);
    m_channel_open = check_reply("channel.open");
    return m_channel_open;
}

void replay_session::close() {
    if (!m_state) {
        return;
    }
    // Closing the channel first hands every delivery not acknowledged back to its queue.
    if (m_channel_open) {
        amqp_channel_close(m_state, m_channel, AMQP_REPLY_SUCCESS);
    }
    amqp_connection_close(m_state, AMQP_REPLY_SUCCESS);
    amqp_destroy_connection(m_state);
    m_state = nullptr;
}

bool replay_session::check_reply(const QString& what) {
    const reply_verdict verdict = read_reply(amqp_get_rpc_reply(m_state));
    if (verdict.what == reply_verdict::ok) {
        return true;
    }
    if (verdict.what == reply_verdict::channel_closed) {
        amqp_channel_close_ok_t ok{};
        amqp_send_method(m_state, m_channel, AMQP_CHANNEL_CLOSE_OK_METHOD, &ok);
    }
    if (verdict.refused_by_broker()) {
        m_channel_open = false;
    }
    return fail(describe(what, verdict));
}

bool replay_session::depth(const QString& queue, uint32_t* count) {
    const QByteArray name = queue.toUtf8();
    const auto* ok = amqp_queue_declare(m_state, m_channel, bytes_of(name), 1, 0, 0, 0, amqp_empty_table);
    if (!check_reply("queue.declare (passive) of " + queue)) {
        return false;
    }
    *count = ok ? ok->message_count : 0;
    return true;
}

bool replay_session::enable_confirms() {
    amqp_confirm_select(m_state, m_channel);
    return check_reply("confirm.select");
}

bool replay_session::get(const QString& queue, fetched_message* out) {
    m_error.clear();
    amqp_maybe_release_buffers(m_state);
    const QByteArray name = queue.toUtf8();
    const amqp_rpc_reply_t reply = amqp_basic_get(m_state, m_channel, bytes_of(name), 0);
    if (reply.reply_type != AMQP_RESPONSE_NORMAL) {
        return check_reply("basic.get from " + queue);
    }
    if (reply.reply.id != AMQP_BASIC_GET_OK_METHOD) {
        return false;  // basic.get-empty
    }
    const auto* got = static_cast<amqp_basic_get_ok_t*>(reply.reply.decoded);
    out->msg = amqp::message{};
    out->msg.channel = m_channel;
    out->msg.delivery_tag = got->delivery_tag;
    out->msg.redelivered = got->redelivered;
    out->msg.exchange = text_of(got->exchange);
    out->msg.routing_key = text_of(got->routing_key);

    amqp_message_t content{};
    const amqp_rpc_reply_t read = amqp_read_message(m_state, m_channel, &content, 0);
    if (read.reply_type != AMQP_RESPONSE_NORMAL) {
        return fail("reading the message from " + queue +
                    " failed: " + QString::fromUtf8(amqp_error_string2(read.library_error)));
    }
    const amqp_basic_properties_t& props = content.properties;
    if (props._flags & AMQP_BASIC_CONTENT_TYPE_FLAG) {
        out->msg.content_type = text_of(props.content_type);
    }
    if (props._flags & AMQP_BASIC_HEADERS_FLAG) {
        out->msg.headers = amqp::read_table(props.headers);
    }
    out->delivery_mode = (props._flags & AMQP_BASIC_DELIVERY_MODE_FLAG) ? props.delivery_mode : 0;
    out->msg.payload = data_of(content.body);
    amqp_destroy_message(&content);
    return true;
}

replay_session::outcome replay_session::publish(const QString& exchange, const QString& routing_key,
                                                const fetched_message& message) {
    amqp_basic_properties_t props{};
    const QByteArray type = message.msg.content_type.toUtf8();
    if (!type.isEmpty()) {
        props._flags |= AMQP_BASIC_CONTENT_TYPE_FLAG;
        props.content_type = bytes_of(type);
    }
    if (message.delivery_mode != 0) {
        props._flags |= AMQP_BASIC_DELIVERY_MODE_FLAG;
        props.delivery_mode = message.delivery_mode;
    }
    const QByteArray exchange_name = exchange.toUtf8();
    const QByteArray key = routing_key.toUtf8();
    const int status = amqp_basic_publish(m_state, m_channel, bytes_of(exchange_name), bytes_of(key), 1, 0,
                                          &props, bytes_of(message.msg.payload));
    if (status != AMQP_STATUS_OK) {
        fail("basic.publish failed: " + QString::fromUtf8(amqp_error_string2(status)));
        return outcome::failed;
    }
    const uint64_t sequence = m_next_publish++;
    bool returned = false;
    for (;;) {
        amqp_frame_t frame{};
        timeval limit{m_confirm_timeout_ms / 1000, (m_confirm_timeout_ms % 1000) * 1000};
        const int waited = amqp_simple_wait_frame_noblock(m_state, &frame, &limit);
        if (waited != AMQP_STATUS_OK) {
            fail("no confirm from the broker: " + QString::fromUtf8(amqp_error_string2(waited)));
            return outcome::failed;
        }
        if (frame.frame_type != AMQP_FRAME_METHOD) {
            continue;
        }
        switch (frame.payload.method.id) {
            case AMQP_BASIC_RETURN_METHOD: {
                // The content of the returned message follows; read and drop it.
                returned = true;
                amqp_message_t content{};
                const amqp_rpc_reply_t read = amqp_read_message(m_state, m_channel, &content, 0);
                if (read.reply_type != AMQP_RESPONSE_NORMAL) {
                    fail("reading a returned message failed");
                    return outcome::failed;
                }
                amqp_destroy_message(&content);
                break;
            }
            case AMQP_BASIC_ACK_METHOD: {
                const auto* ack = static_cast<amqp_basic_ack_t*>(frame.payload.method.decoded);
                if (ack->delivery_tag >= sequence) {  // one publication is outstanding at a time
                    return returned ? outcome::unroutable : outcome::confirmed;
                }
                break;
            }
            case AMQP_BASIC_NACK_METHOD:
                fail("the broker did not take the message (basic.nack)");
                return outcome::refused;
            case AMQP_CHANNEL_CLOSE_METHOD: {
                const auto* c = static_cast<amqp_channel_close_t*>(frame.payload.method.decoded);
                fail("the broker closed the channel: " + QString::number(c->reply_code) + " " +
                     text_of(c->reply_text));
                amqp_channel_close_ok_t ok{};
                amqp_send_method(m_state, m_channel, AMQP_CHANNEL_CLOSE_OK_METHOD, &ok);
                m_channel_open = false;
                return outcome::failed;
            }
            case AMQP_CONNECTION_CLOSE_METHOD: {
                const auto* c = static_cast<amqp_connection_close_t*>(frame.payload.method.decoded);
                fail("the broker closed the connection: " + QString::number(c->reply_code) + " " +
                     text_of(c->reply_text));
                m_channel_open = false;
                return outcome::failed;
            }
            default:
                break;
        }
    }
}

bool replay_session::ack(uint64_t delivery_tag) {
    const int status = amqp_basic_ack(m_state, m_channel, delivery_tag, 0);
    if (status != AMQP_STATUS_OK) {
        return fail("basic.ack failed: " + QString::fromUtf8(amqp_error_string2(status)));
    }
    return true;
}

}  // namespace amqp
