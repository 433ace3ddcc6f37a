#include "amqp/amqp_link.h"
#include "amqp/amqp_bytes.h"
#include "amqp/amqp_reply.h"

#include <amqp.h>
#include <amqp_framing.h>
#include <amqp_ssl_socket.h>
#include <amqp_tcp_socket.h>
#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/ssl.h>
#include <openssl/x509_vfy.h>
#include <sys/socket.h>

#include <algorithm>
#include <thread>

#include "amqp/amqp_table.h"

namespace amqp {

namespace {

timeval to_timeval(int ms) {
    timeval tv{};
    tv.tv_sec = ms / 1000;
    tv.tv_usec = (ms % 1000) * 1000;
    return tv;
}

// Carries out the plan on one library connection, remembering the first failure.
bool is_address(const QString& host) {
    const QByteArray text = host.toUtf8();
    unsigned char buffer[sizeof(in6_addr)];
    return inet_pton(AF_INET, text.constData(), buffer) == 1 ||
           inet_pton(AF_INET6, text.constData(), buffer) == 1;
}

// What the library's word for a failed TLS connection means for the operator.
QString tls_hint(int status, const link_settings& settings) {
    const QString where = settings.url.host + ":" + QString::number(settings.url.port);
    switch (status) {
        case AMQP_STATUS_SSL_PEER_VERIFY_FAILED:
            return " (the certificate of " + where + " is not signed by the CA in " + settings.ca_cert_file +
                   (!is_address(settings.url.host) ? QString(")") : ", or not issued for that address)");
        case AMQP_STATUS_SSL_HOSTNAME_VERIFY_FAILED:
            return " (the certificate of " + where + " is not issued for the name " + settings.url.host +
                   ": use the name it is issued for)";
        case AMQP_STATUS_SSL_CONNECTION_FAILED:
        case AMQP_STATUS_SSL_ERROR:
            return " (no TLS from " + where + ": is it the broker's TLS port?)";
        case AMQP_STATUS_TIMEOUT:
            return " (no TLS handshake from " + where + " in time: is it the broker's TLS port?)";
        default:
            return QString();
    }
}

// Verification against the CA file, of the certificate's name or, for an address, of its
// IP address entries (the library compares names only).
bool set_up_verification(amqp_socket_t* socket, const link_settings& settings) {
    const QByteArray host = settings.url.host.toUtf8();
    const bool address = is_address(settings.url.host);
    amqp_ssl_socket_set_verify_peer(socket, 1);
    amqp_ssl_socket_set_verify_hostname(socket, address ? 0 : 1);
    if (address) {
        auto* context = static_cast<SSL_CTX*>(amqp_ssl_socket_get_context(socket));
        if (!context || X509_VERIFY_PARAM_set1_ip_asc(SSL_CTX_get0_param(context), host.constData()) != 1) {
            return false;
        }
    }
    return amqp_ssl_socket_set_cacert(socket, settings.ca_cert_file.toLocal8Bit().constData()) ==
           AMQP_STATUS_OK;
}

class link_builder {
public:
    link_builder(const link_settings& settings, link_result& result)
        : m_settings(settings), m_result(result) {}

    bool open();
    uint16_t open_channel();
    bool set_up_queue(const link_plan::queue_setup& setup);

private:
    bool check(uint16_t channel, const QString& what);
    bool fail(const QString& why, bool refused = false) {
        m_result.error = why;
        m_result.refused = refused;
        return false;
    }

    const link_settings& m_settings;
    link_result& m_result;
    amqp_connection_state_t m_state = nullptr;

public:
    amqp_connection_state_t state() const { return m_state; }
    void release() { m_state = nullptr; }
    ~link_builder() {
        if (m_state) {
            amqp_destroy_connection(m_state);
        }
    }
};

bool link_builder::open() {
    m_state = amqp_new_connection();
    if (!m_state) {
        return fail("out of memory");
    }
    amqp_socket_t* socket = nullptr;
    if (m_settings.url.tls) {
        socket = amqp_ssl_socket_new(m_state);
        if (socket && m_settings.ca_cert_file.isEmpty()) {
            // Encrypted, but any certificate is accepted.
            amqp_ssl_socket_set_verify_peer(socket, 0);
            amqp_ssl_socket_set_verify_hostname(socket, 0);
        } else if (socket && !set_up_verification(socket, m_settings)) {
            return fail("cannot read the CA file " + m_settings.ca_cert_file);
        }
    } else {
        socket = amqp_tcp_socket_new(m_state);
    }
    if (!socket) {
        return fail("cannot create a socket");
    }
    const timeval connect_tv = to_timeval(m_settings.connect_timeout_ms);
    const int opened = amqp_socket_open_noblock(socket, m_settings.url.host.toUtf8().constData(),
                                                m_settings.url.port, &connect_tv);
    if (opened != AMQP_STATUS_OK) {
        return fail(QString::fromUtf8(amqp_error_string2(opened)) +
                    (m_settings.url.tls ? tls_hint(opened, m_settings) : QString()));
    }
    const timeval handshake_tv = to_timeval(m_settings.rpc_timeout_ms);
    amqp_set_handshake_timeout(m_state, &handshake_tv);
    const amqp_rpc_reply_t login =
        amqp_login(m_state, m_settings.vhost.toUtf8().constData(), 0, AMQP_DEFAULT_FRAME_SIZE,
                   m_settings.heartbeat_s, AMQP_SASL_METHOD_PLAIN, m_settings.url.user.toUtf8().constData(),
                   m_settings.url.password.toUtf8().constData());
    if (login.reply_type == AMQP_RESPONSE_SERVER_EXCEPTION &&
        login.reply.id == AMQP_CONNECTION_CLOSE_METHOD) {
        const auto* close = static_cast<amqp_connection_close_t*>(login.reply.decoded);
        return fail("login to vhost " + m_settings.vhost + " refused: " + QString::number(close->reply_code) +
                        " " + text_of(close->reply_text),
                    true);
    }
    if (login.reply_type != AMQP_RESPONSE_NORMAL) {
        const QString why = login.reply_type == AMQP_RESPONSE_LIBRARY_EXCEPTION
                                ? QString::fromUtf8(amqp_error_string2(login.library_error))
                                : QString("no usable reply");
        return fail("login to vhost " + m_settings.vhost + " failed: " + why);
    }
    const timeval rpc_tv = to_timeval(m_settings.rpc_timeout_ms);
    amqp_set_rpc_timeout(m_state, &rpc_tv);
    // Unacknowledged outgoing data older than the write time-out breaks the connection,
    // so a send into a dead peer cannot hang.
    const unsigned user_timeout = unsigned(m_settings.write_timeout_ms);
    setsockopt(amqp_get_sockfd(m_state), IPPROTO_TCP, TCP_USER_TIMEOUT, &user_timeout, sizeof user_timeout);
    m_result.negotiated_heartbeat = amqp_get_heartbeat(m_state);
    return true;
}

bool link_builder::check(uint16_t channel, const QString& what) {
    const reply_verdict verdict = read_reply(amqp_get_rpc_reply(m_state));
    if (verdict.what == reply_verdict::ok) {
        return true;
    }
    if (verdict.what == reply_verdict::channel_closed) {
        amqp_channel_close_ok_t ok{};
        amqp_send_method(m_state, channel, AMQP_CHANNEL_CLOSE_OK_METHOD, &ok);
    }
    const bool refused = verdict.refused_by_broker();
    return fail(describe(what, verdict) + (refused ? refusal_hint(what, verdict.code) : QString()), refused);
}

uint16_t link_builder::open_channel() {
    const uint16_t channel = uint16_t(m_result.last_channel + 1);
    amqp_channel_open(m_state, channel);
    if (!check(channel, "channel.open")) {
        return 0;
    }
    m_result.last_channel = channel;
    return channel;
}

bool link_builder::set_up_queue(const link_plan::queue_setup& setup) {
    const uint16_t channel = open_channel();
    if (channel == 0) {
        return false;
    }
    table_builder args(nullptr);
    const QByteArray name = setup.name.toUtf8();
    const int o = setup.options;
    const auto* declared =
        amqp_queue_declare(m_state, channel, bytes_of(name), o & 0x01 ? 1 : 0, o & 0x02 ? 1 : 0,
                           o & 0x04 ? 1 : 0, o & 0x08 ? 1 : 0, args.build(setup.arguments));
    if (!check(channel, "queue.declare of " + setup.name)) {
        return false;
    }
    m_result.declared_queue = declared ? text_of(declared->queue) : setup.name;
    const QByteArray queue_name = m_result.declared_queue.toUtf8();
    for (const auto& binding : setup.bindings) {
        amqp_queue_bind(m_state, channel, bytes_of(queue_name), bytes_of(binding.first.toUtf8()),
                        bytes_of(binding.second.toUtf8()), amqp_empty_table);
        if (!check(channel, "queue.bind of " + setup.name + " to exchange " + binding.first + " with key " +
                                binding.second)) {
            return false;
        }
    }
    if (setup.prefetch > 0) {
        amqp_basic_qos(m_state, channel, 0, uint16_t(std::min(setup.prefetch, 65535)), 0);
        if (!check(channel, "basic.qos")) {
            return false;
        }
    }
    if (setup.consume) {
        const int c = setup.consume_options;
        const auto* ok =
            amqp_basic_consume(m_state, channel, bytes_of(queue_name), amqp_empty_bytes, c & 0x01 ? 1 : 0,
                               c & 0x02 ? 1 : 0, c & 0x04 ? 1 : 0, amqp_empty_table);
        if (!check(channel, "basic.consume of " + setup.name)) {
            return false;
        }
        m_result.consumer_tag = ok ? text_of(ok->consumer_tag) : QString();
    }
    m_result.queue_channel = channel;
    return true;
}

}  // namespace

link_result establish_link(const link_settings& settings, const link_plan& plan) {
    link_result result;
    link_builder builder(settings, result);
    if (!builder.open()) {
        return result;
    }
    if (plan.queue && !builder.set_up_queue(*plan.queue)) {
        return result;
    }
    if (plan.publish_channel) {
        result.publish_channel = builder.open_channel();
        if (result.publish_channel == 0) {
            return result;
        }
    }
    result.state = builder.state();
    builder.release();
    return result;
}

void close_link_in_background(amqp_connection_state_t_* state) {
    if (!state) {
        return;
    }
    std::thread([state] {
        amqp_connection_close(state, AMQP_REPLY_SUCCESS);
        amqp_destroy_connection(state);
    }).detach();
}

QString refusal_hint(const QString& request, int reply_code) {
    switch (reply_code) {
        case AMQP_PRECONDITION_FAILED:
            if (request.startsWith("queue.declare")) {
                return " (the queue exists with other properties or arguments: delete it on the broker, or "
                       "configure the same durability and arguments)";
            }
            return QString();
        case AMQP_NOT_FOUND:
            if (request.startsWith("queue.bind")) {
                return " (the exchange does not exist: declare it on the broker; the service never declares "
                       "exchanges)";
            }
            return QString();
        case AMQP_ACCESS_REFUSED:
            return " (the broker user lacks the permission: grant it with rabbitmqctl set_permissions)";
        case AMQP_RESOURCE_LOCKED:
            return " (another connection holds the queue exclusively)";
        default:
            return QString();
    }
}

}  // namespace amqp
