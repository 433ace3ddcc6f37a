#include "tests/tools/broker_admin.h"

#include <amqp.h>
#include <amqp_framing.h>

#include "amqp/amqp_link.h"
#include "amqp/amqp_table.h"
#include "tests/support/service_harness.h"

namespace tools_test {

namespace {

amqp_bytes_t bytes_of(const QByteArray& data) {
    amqp_bytes_t out;
    out.len = size_t(data.size());
    out.bytes = const_cast<char*>(data.constData());
    return out;
}

}  // namespace

broker_admin::broker_admin() {
    amqp::link_settings settings;
    settings.url = amqp::url_parts::parse(e2e::broker_url());
    settings.vhost = "/api";
    settings.heartbeat_s = 0;
    const amqp::link_result link = amqp::establish_link(settings, amqp::link_plan{});
    m_state = link.state;
    m_error = link.error;
    if (m_state) {
        amqp_channel_open(m_state, m_channel);
        check("channel.open");
    }
}

broker_admin::~broker_admin() {
    if (m_state) {
        amqp_connection_close(m_state, AMQP_REPLY_SUCCESS);
        amqp_destroy_connection(m_state);
    }
}

// A refusal closes the channel; the next request gets a fresh one.
bool broker_admin::check(const QString& what) {
    const amqp_rpc_reply_t reply = amqp_get_rpc_reply(m_state);
    if (reply.reply_type == AMQP_RESPONSE_NORMAL) {
        return true;
    }
    m_error = what + " failed";
    if (reply.reply_type == AMQP_RESPONSE_SERVER_EXCEPTION && reply.reply.id == AMQP_CHANNEL_CLOSE_METHOD) {
        const auto* c = static_cast<amqp_channel_close_t*>(reply.reply.decoded);
        m_error += ": " + QString::number(c->reply_code) + " " +
                   QString::fromUtf8(static_cast<const char*>(c->reply_text.bytes), int(c->reply_text.len));
        amqp_channel_close_ok_t ok{};
        amqp_send_method(m_state, m_channel, AMQP_CHANNEL_CLOSE_OK_METHOD, &ok);
        ++m_channel;
        amqp_channel_open(m_state, m_channel);
        amqp_get_rpc_reply(m_state);
    }
    return false;
}

bool broker_admin::declare_exchange(const QString& name, const QString& type) {
    amqp_exchange_declare(m_state, m_channel, bytes_of(name.toUtf8()), bytes_of(type.toUtf8()), 0, 0, 0, 0,
                          amqp_empty_table);
    return check("exchange.declare of " + name);
}

bool broker_admin::declare_queue(const QString& name, bool durable, const QVariantHash& arguments) {
    amqp::table_builder args(nullptr);
    amqp_queue_declare(m_state, m_channel, bytes_of(name.toUtf8()), 0, durable ? 1 : 0, 0, 0,
                       args.build(arguments));
    return check("queue.declare of " + name);
}

bool broker_admin::bind(const QString& queue, const QString& exchange, const QString& key) {
    amqp_queue_bind(m_state, m_channel, bytes_of(queue.toUtf8()), bytes_of(exchange.toUtf8()),
                    bytes_of(key.toUtf8()), amqp_empty_table);
    return check("queue.bind of " + queue);
}

bool broker_admin::delete_queue(const QString& name) {
    amqp_queue_delete(m_state, m_channel, bytes_of(name.toUtf8()), 0, 0);
    return check("queue.delete of " + name);
}

bool broker_admin::delete_exchange(const QString& name) {
    amqp_exchange_delete(m_state, m_channel, bytes_of(name.toUtf8()), 0);
    return check("exchange.delete of " + name);
}

int64_t broker_admin::message_count(const QString& name) {
    const auto* ok =
        amqp_queue_declare(m_state, m_channel, bytes_of(name.toUtf8()), 1, 0, 0, 0, amqp_empty_table);
    if (!check("queue.declare (passive) of " + name) || !ok) {
        return -1;
    }
    return ok->message_count;
}

bool broker_admin::publish(const QString& exchange, const QString& key, const QByteArray& body) {
    amqp_basic_properties_t props{};
    props._flags = AMQP_BASIC_CONTENT_TYPE_FLAG;
    props.content_type = amqp_cstring_bytes("text/plain");
    const int status = amqp_basic_publish(m_state, m_channel, bytes_of(exchange.toUtf8()),
                                          bytes_of(key.toUtf8()), 0, 0, &props, bytes_of(body));
    return status == AMQP_STATUS_OK;
}

}  // namespace tools_test
