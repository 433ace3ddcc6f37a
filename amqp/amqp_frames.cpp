// Incoming frames of amqp::connection: deliveries assembled from their method, header
// and body frames, and every other method the broker may send unasked.
#include <amqp.h>
#include <amqp_framing.h>

#include "amqp/amqp_bytes.h"
#include "amqp/amqp_connection.h"
#include "amqp/amqp_fields.h"

namespace amqp {

void connection::handle_frame(const amqp_frame_t& frame) {
    const uint16_t channel = frame.channel;
    switch (frame.frame_type) {
        case AMQP_FRAME_METHOD:
            handle_method(channel, frame.payload.method.id, frame.payload.method.decoded);
            return;
        case AMQP_FRAME_HEADER: {
            auto it = m_partial.find(channel);
            if (it == m_partial.end() || it->have_header) {
                log_line(m_log, Warning) << "amqp: content header without a delivery on channel "
                                         << QString::number(channel) << " ignored";
                return;
            }
            it->have_header = true;
            it->body_size = frame.payload.properties.body_size;
            const auto* props = static_cast<const amqp_basic_properties_t*>(frame.payload.properties.decoded);
            if (props && (props->_flags & AMQP_BASIC_CONTENT_TYPE_FLAG)) {
                it->msg.content_type = QString::fromUtf8(static_cast<const char*>(props->content_type.bytes),
                                                         int(props->content_type.len));
            }
            if (props && (props->_flags & AMQP_BASIC_HEADERS_FLAG)) {
                it->msg.headers = read_table(props->headers);
            }
            if (props && (props->_flags & AMQP_BASIC_USER_ID_FLAG)) {
                it->msg.user_id = QString::fromUtf8(static_cast<const char*>(props->user_id.bytes),
                                                    int(props->user_id.len));
            }
            it->msg.payload.reserve(int(it->body_size));
            if (it->body_size == 0) {
                finish_delivery(channel);
            }
            return;
        }
        case AMQP_FRAME_BODY: {
            auto it = m_partial.find(channel);
            if (it == m_partial.end() || !it->have_header) {
                log_line(m_log, Warning) << "amqp: content body without a delivery on channel "
                                         << QString::number(channel) << " ignored";
                return;
            }
            it->msg.payload.append(static_cast<const char*>(frame.payload.body_fragment.bytes),
                                   int(frame.payload.body_fragment.len));
            if (uint64_t(it->msg.payload.size()) >= it->body_size) {
                finish_delivery(channel);
            }
            return;
        }
        case AMQP_FRAME_HEARTBEAT:
            return;
        default:
            log_line(m_log, Warning) << "amqp: frame of unknown type " << QString::number(frame.frame_type)
                                     << " on channel " << QString::number(channel) << " ignored";
    }
}

void connection::finish_delivery(uint16_t channel) {
    partial_delivery done = m_partial.take(channel);
    {
        std::lock_guard<std::recursive_mutex> io(m_io);
        amqp_maybe_release_buffers_on_channel(m_state, channel);
    }
    if (done.returned) {
        log_line(m_log, Warning) << "amqp: message returned by the broker (exchange " << done.msg.exchange
                                 << ", routing key " << done.msg.routing_key << ") dropped";
        return;
    }
    Q_EMIT delivered(done.msg);
}

void connection::handle_method(uint16_t channel, uint32_t method_id, void* decoded) {
    switch (method_id) {
        case AMQP_BASIC_DELIVER_METHOD: {
            const auto* d = static_cast<amqp_basic_deliver_t*>(decoded);
            partial_delivery p;
            p.msg.channel = channel;
            p.msg.delivery_tag = d->delivery_tag;
            p.msg.redelivered = d->redelivered;
            p.msg.exchange = text_of(d->exchange);
            p.msg.routing_key = text_of(d->routing_key);
            p.msg.consumer_tag = text_of(d->consumer_tag);
            m_partial.insert(channel, p);
            return;
        }
        case AMQP_BASIC_RETURN_METHOD: {
            const auto* r = static_cast<amqp_basic_return_t*>(decoded);
            partial_delivery p;
            p.returned = true;
            p.msg.exchange = text_of(r->exchange);
            p.msg.routing_key = text_of(r->routing_key);
            m_partial.insert(channel, p);
            return;
        }
        case AMQP_CHANNEL_CLOSE_METHOD: {
            const auto* c = static_cast<amqp_channel_close_t*>(decoded);
            close_channel_after_broker(channel, c->reply_code, text_of(c->reply_text));
            return;
        }
        case AMQP_CONNECTION_CLOSE_METHOD: {
            const auto* c = static_cast<amqp_connection_close_t*>(decoded);
            const QString why =
                "closed by the broker: " + QString::number(c->reply_code) + " " + text_of(c->reply_text);
            amqp_connection_close_ok_t ok{};
            {
                std::lock_guard<std::recursive_mutex> io(m_io);
                amqp_send_method(m_state, 0, AMQP_CONNECTION_CLOSE_OK_METHOD, &ok);
            }
            lose(why);
            return;
        }
        case AMQP_BASIC_CANCEL_METHOD: {
            const auto* c = static_cast<amqp_basic_cancel_t*>(decoded);
            const QString tag = text_of(c->consumer_tag);
            log_line(m_log, Warning) << "amqp: the broker cancelled consumer " << tag << " on channel "
                                     << QString::number(channel);
            if (!c->nowait) {
                amqp_basic_cancel_ok_t ok{};
                ok.consumer_tag = c->consumer_tag;
                {
                    std::lock_guard<std::recursive_mutex> io(m_io);
                    amqp_send_method(m_state, channel, AMQP_BASIC_CANCEL_OK_METHOD, &ok);
                }
            }
            Q_EMIT consumer_cancelled(channel, tag);
            return;
        }
        case AMQP_CHANNEL_FLOW_METHOD: {
            const auto* f = static_cast<amqp_channel_flow_t*>(decoded);
            log_line(m_log, Warning) << "amqp: broker asks for flow " << (f->active ? "on" : "off")
                                     << " on channel " << QString::number(channel);
            amqp_channel_flow_ok_t ok{};
            ok.active = f->active;
            {
                std::lock_guard<std::recursive_mutex> io(m_io);
                amqp_send_method(m_state, channel, AMQP_CHANNEL_FLOW_OK_METHOD, &ok);
            }
            return;
        }
        case AMQP_CONNECTION_BLOCKED_METHOD:
            log_line(m_log, Warning) << "amqp: the broker blocks publishing: "
                                     << text_of(static_cast<amqp_connection_blocked_t*>(decoded)->reason);
            return;
        case AMQP_CONNECTION_UNBLOCKED_METHOD:
            log_line(m_log, Info) << "amqp: the broker unblocked publishing";
            return;
        case AMQP_BASIC_ACK_METHOD:
        case AMQP_BASIC_NACK_METHOD:
            log_line(m_log, Debug) << "amqp: publisher confirm " << amqp_method_name(method_id)
                                   << " on channel " << QString::number(channel);
            return;
        default:
            // Replies to requests that already completed (a late consume-ok, say).
            log_line(m_log, Debug) << "amqp: " << amqp_method_name(method_id) << " on channel "
                                   << QString::number(channel) << " needs no action";
    }
}

void connection::close_channel_after_broker(uint16_t channel, int code, const QString& text, bool log) {
    m_last_error = QString::number(code) + " " + text;
    if (log) {
        log_line(m_log, Error) << "amqp: the broker closed channel " << QString::number(channel) << ": "
                               << m_last_error;
    }
    amqp_channel_close_ok_t ok{};
    {
        std::lock_guard<std::recursive_mutex> io(m_io);
        amqp_send_method(m_state, channel, AMQP_CHANNEL_CLOSE_OK_METHOD, &ok);
    }
    m_open_channels.remove(channel);
    m_partial.remove(channel);
    Q_EMIT channel_closed(channel, code, text);
}

}  // namespace amqp
