#include "amqp/broker_link.h"

#include <amqp.h>
#include <amqp_framing.h>
#include <amqp_tcp_socket.h>
#include <sys/time.h>
#include <QElapsedTimer>
#include <QThread>
#include <map>

#include "amqp/amqp_bytes.h"
#include "amqp/amqp_reply.h"
#include "amqp/amqp_table.h"
#include "amqp/amqp_url.h"

namespace amqp {

namespace {

timeval as_timeval(int ms) {
    return timeval{ms / 1000, (ms % 1000) * 1000};
}

}  // namespace

broker_link::broker_link(const QString& url, const QString& vhost, bool confirms)
    : m_url(url), m_vhost(vhost), m_confirms(confirms) {}

broker_link::~broker_link() {
    close();
}

bool broker_link::open(int timeout_ms) {
    QElapsedTimer clock;
    clock.start();
    while (!connect_once()) {
        if (clock.elapsed() > timeout_ms) {
            return false;
        }
        QThread::msleep(250);
    }
    return true;
}

void broker_link::close() {
    if (!m_conn) {
        return;
    }
    // Best effort: after a broker failure the socket may be gone already.
    amqp_connection_close(m_conn, AMQP_REPLY_SUCCESS);
    amqp_destroy_connection(m_conn);
    m_conn = nullptr;
}

bool broker_link::fail(const QString& why) {
    m_error = why;
    close();
    return false;
}

bool broker_link::check_rpc(const char* what) {
    const reply_verdict verdict = read_reply(amqp_get_rpc_reply(m_conn));
    return verdict.what == reply_verdict::ok || fail(describe(what, verdict));
}

bool broker_link::connect_once() {
    close();
    const amqp::url_parts url = amqp::url_parts::parse(m_url);
    if (!url.valid) {
        return fail("bad broker URL: " + url.error);
    }
    m_conn = amqp_new_connection();
    amqp_socket_t* socket = amqp_tcp_socket_new(m_conn);
    timeval connect_timeout = as_timeval(5000);
    if (!socket || amqp_socket_open_noblock(socket, url.host.toUtf8().constData(), url.port,
                                            &connect_timeout) != AMQP_STATUS_OK) {
        return fail("cannot connect to " + url.host + ":" + QString::number(url.port));
    }
    timeval rpc_timeout = as_timeval(30000);
    amqp_set_rpc_timeout(m_conn, &rpc_timeout);
    const amqp_rpc_reply_t login =
        amqp_login(m_conn, m_vhost.toUtf8().constData(), 0, 131072, 0, AMQP_SASL_METHOD_PLAIN,
                   url.user.toUtf8().constData(), url.password.toUtf8().constData());
    if (login.reply_type != AMQP_RESPONSE_NORMAL) {
        return fail("login refused");
    }
    amqp_channel_open(m_conn, 1);
    if (!check_rpc("channel.open")) {
        return false;
    }
    if (m_confirms) {
        amqp_confirm_select(m_conn, 1);
        if (!check_rpc("confirm.select")) {
            return false;
        }
    }
    m_next_tag = 1;
    return true;
}

bool broker_link::ensure_open() {
    return m_conn || connect_once();
}

bool broker_link::declare_exchange(const QString& name, const QString& type, bool durable) {
    if (!ensure_open()) {
        return false;
    }
    amqp_exchange_declare(m_conn, 1, bytes_of(name.toUtf8()), bytes_of(type.toUtf8()), 0, durable ? 1 : 0, 0,
                          0, amqp_empty_table);
    return check_rpc("exchange.declare");
}

bool broker_link::delete_exchange(const QString& name) {
    if (!ensure_open()) {
        return false;
    }
    amqp_exchange_delete(m_conn, 1, bytes_of(name.toUtf8()), 0);
    return check_rpc("exchange.delete");
}

bool broker_link::declare_queue(const QString& name, bool durable, const QVariantHash& arguments) {
    if (!ensure_open()) {
        return false;
    }
    table_builder args(nullptr);
    amqp_queue_declare(m_conn, 1, bytes_of(name.toUtf8()), 0, durable ? 1 : 0, 0, 0, args.build(arguments));
    return check_rpc("queue.declare");
}

bool broker_link::bind_queue(const QString& queue, const QString& exchange, const QString& key) {
    if (!ensure_open()) {
        return false;
    }
    amqp_queue_bind(m_conn, 1, bytes_of(queue.toUtf8()), bytes_of(exchange.toUtf8()), bytes_of(key.toUtf8()),
                    amqp_empty_table);
    return check_rpc("queue.bind");
}

bool broker_link::delete_queue(const QString& name) {
    if (!ensure_open()) {
        return false;
    }
    amqp_queue_delete(m_conn, 1, bytes_of(name.toUtf8()), 0, 0);
    return check_rpc("queue.delete");
}

bool broker_link::queue_counts(const QString& name, uint32_t& messages, uint32_t& consumers) {
    if (!ensure_open()) {
        return false;
    }
    const amqp_queue_declare_ok_t* ok =
        amqp_queue_declare(m_conn, 1, bytes_of(name.toUtf8()), 1, 0, 0, 0, amqp_empty_table);
    if (!check_rpc("queue.declare (passive)") || !ok) {
        return false;
    }
    messages = ok->message_count;
    consumers = ok->consumer_count;
    return true;
}

bool broker_link::take_all(const QString& queue, std::vector<QByteArray>& out) {
    if (!ensure_open()) {
        return false;
    }
    for (;;) {
        const amqp_rpc_reply_t reply = amqp_basic_get(m_conn, 1, bytes_of(queue.toUtf8()), 1);
        if (reply.reply_type != AMQP_RESPONSE_NORMAL) {
            return check_rpc("basic.get");
        }
        if (reply.reply.id == AMQP_BASIC_GET_EMPTY_METHOD) {
            return true;
        }
        amqp_message_t message;
        if (amqp_read_message(m_conn, 1, &message, 0).reply_type != AMQP_RESPONSE_NORMAL) {
            return fail("basic.get: cannot read the message");
        }
        out.push_back(data_of(message.body));
        amqp_destroy_message(&message);
        amqp_maybe_release_buffers(m_conn);
    }
}

bool broker_link::publish(const QString& exchange, const QString& routing_key, const QByteArray& body) {
    if (!ensure_open()) {
        return false;
    }
    amqp_basic_properties_t props{};
    props._flags = AMQP_BASIC_CONTENT_TYPE_FLAG;
    props.content_type = amqp_cstring_bytes("text/plain");
    const int status = amqp_basic_publish(m_conn, 1, bytes_of(exchange.toUtf8()),
                                          bytes_of(routing_key.toUtf8()), 0, 0, &props, bytes_of(body));
    return status == AMQP_STATUS_OK || fail(QString("basic.publish failed: ") + amqp_error_string2(status));
}

bool broker_link::publish_confirmed(const QString& exchange, const std::vector<outgoing>& batch,
                                    std::vector<size_t>& unconfirmed, int timeout_ms) {
    unconfirmed.clear();
    std::map<uint64_t, size_t> pending;  // delivery tag -> index in the batch
    auto give_up = [&](const QString& why) {
        for (const auto& entry : pending) {
            unconfirmed.push_back(entry.second);
        }
        return fail(why);
    };
    if (!ensure_open()) {
        for (size_t i = 0; i < batch.size(); ++i) {
            unconfirmed.push_back(i);
        }
        return false;
    }
    amqp_basic_properties_t properties{};
    properties._flags = AMQP_BASIC_CONTENT_TYPE_FLAG | AMQP_BASIC_DELIVERY_MODE_FLAG;
    properties.content_type = amqp_cstring_bytes("text/plain");
    properties.delivery_mode = 2;  // persistent: a broker restart keeps what it confirmed
    const QByteArray exchange_name = exchange.toUtf8();
    for (size_t i = 0; i < batch.size(); ++i) {
        pending[m_next_tag++] = i;
        if (amqp_basic_publish(m_conn, 1, bytes_of(exchange_name), bytes_of(batch[i].routing_key), 1, 0,
                               &properties, bytes_of(batch[i].body)) != AMQP_STATUS_OK) {
            for (size_t j = i + 1; j < batch.size(); ++j) {
                unconfirmed.push_back(j);
            }
            return give_up("basic.publish failed");
        }
    }
    QElapsedTimer clock;
    clock.start();
    std::map<QByteArray, size_t> by_body;  // to name the messages the broker returns
    while (!pending.empty()) {
        const int left = timeout_ms - int(clock.elapsed());
        if (left <= 0) {
            return give_up("no confirm in time");
        }
        timeval wait = as_timeval(left);
        amqp_frame_t frame;
        const int status = amqp_simple_wait_frame_noblock(m_conn, &frame, &wait);
        if (status != AMQP_STATUS_OK) {
            return give_up(QString("waiting for confirms: %1").arg(amqp_error_string2(status)));
        }
        if (frame.frame_type != AMQP_FRAME_METHOD) {
            continue;
        }
        const amqp_method_number_t id = frame.payload.method.id;
        if (id == AMQP_BASIC_ACK_METHOD || id == AMQP_BASIC_NACK_METHOD) {
            uint64_t tag = 0;
            bool multiple = false;
            if (id == AMQP_BASIC_ACK_METHOD) {
                const auto* ack = static_cast<amqp_basic_ack_t*>(frame.payload.method.decoded);
                tag = ack->delivery_tag;
                multiple = ack->multiple;
            } else {
                const auto* nack = static_cast<amqp_basic_nack_t*>(frame.payload.method.decoded);
                tag = nack->delivery_tag;
                multiple = nack->multiple;
            }
            const bool refused = id == AMQP_BASIC_NACK_METHOD;
            if (multiple) {
                const auto end = pending.upper_bound(tag);
                for (auto it = pending.begin(); refused && it != end; ++it) {
                    unconfirmed.push_back(it->second);
                }
                pending.erase(pending.begin(), end);
            } else if (const auto it = pending.find(tag); it != pending.end()) {
                if (refused) {
                    unconfirmed.push_back(it->second);
                }
                pending.erase(it);
            }
        } else if (id == AMQP_BASIC_RETURN_METHOD) {
            // Unroutable: the confirm follows, but the message went nowhere.
            amqp_message_t message;
            if (amqp_read_message(m_conn, 1, &message, 0).reply_type != AMQP_RESPONSE_NORMAL) {
                return give_up("cannot read a returned message");
            }
            if (by_body.empty()) {
                for (size_t i = 0; i < batch.size(); ++i) {
                    by_body[batch[i].body] = i;
                }
            }
            const auto found = by_body.find(data_of(message.body));
            if (found != by_body.end()) {
                unconfirmed.push_back(found->second);
            }
            amqp_destroy_message(&message);
        } else if (id == AMQP_CHANNEL_CLOSE_METHOD || id == AMQP_CONNECTION_CLOSE_METHOD) {
            return give_up("closed by the broker while publishing");
        }
    }
    amqp_maybe_release_buffers(m_conn);
    return true;
}

}  // namespace amqp
