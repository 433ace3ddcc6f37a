#include "amqp/amqp_connection.h"

#include <amqp.h>
#include <amqp_framing.h>
#include <amqp_ssl_socket.h>
#include <amqp_tcp_socket.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <QPointer>
#include <QSocketNotifier>
#include <algorithm>

#include "amqp/amqp_exchange.h"
#include "amqp/amqp_queue.h"

namespace amqp {

namespace {

timeval to_timeval(int ms) {
    timeval tv{};
    tv.tv_sec = ms / 1000;
    tv.tv_usec = (ms % 1000) * 1000;
    return tv;
}

QString reply_text(const amqp_rpc_reply_t& reply) {
    switch (reply.reply_type) {
        case AMQP_RESPONSE_NORMAL:
            return "ok";
        case AMQP_RESPONSE_NONE:
            return "no reply";
        case AMQP_RESPONSE_LIBRARY_EXCEPTION:
            return QString::fromUtf8(amqp_error_string2(reply.library_error));
        case AMQP_RESPONSE_SERVER_EXCEPTION:
            if (reply.reply.id == AMQP_CONNECTION_CLOSE_METHOD) {
                const auto* close = static_cast<amqp_connection_close_t*>(reply.reply.decoded);
                return QString::number(close->reply_code) + " " +
                       QString::fromUtf8(static_cast<const char*>(close->reply_text.bytes),
                                         int(close->reply_text.len));
            }
            return QString("method ") + amqp_method_name(reply.reply.id);
    }
    return "unknown reply";
}

// Back-off after the n-th failed attempt in a row: 250, 500, 1000, 2000, then 3000 ms.
int backoff_ms(int failed_attempts) {
    if (failed_attempts <= 0) {
        return 0;
    }
    const int shift = std::min(failed_attempts - 1, 4);
    return std::min(250 << shift, connection::max_backoff_ms);
}

// A connection that stayed up this long counts as healthy: its loss is retried at once.
constexpr int stable_connection_ms = 2000;

// The longest one reading turn keeps the event loop.
constexpr qint64 pump_budget_ms = 10;

}  // namespace

connection::connection(logger& log, QObject* parent) : QObject(parent), m_log(log) {
    m_heartbeat_timer.setTimerType(Qt::CoarseTimer);
    connect(&m_heartbeat_timer, &QTimer::timeout, this, &connection::pump);
    m_reconnect_timer.setSingleShot(true);
    connect(&m_reconnect_timer, &QTimer::timeout, this, &connection::attempt);
    m_uncork_timer.setSingleShot(true);
    m_uncork_timer.setInterval(0);
    connect(&m_uncork_timer, &QTimer::timeout, this, &connection::uncork);
}

connection::~connection() {
    m_wanted = false;
    m_reconnect_timer.stop();
    if (m_state) {
        uncork();
        // A clean close lets the broker requeue unacknowledged deliveries at once.
        amqp_connection_close(m_state, AMQP_REPLY_SUCCESS);
        teardown();
    }
}

void connection::set_virtual_host(const QString& vhost) {
    m_vhost_override = vhost;
}
void connection::set_heartbeat(int seconds) {
    m_heartbeat_s = std::max(0, seconds);
}
void connection::set_write_timeout(int ms) {
    m_write_timeout_ms = std::max(0, ms);
}
void connection::set_rpc_timeout(int ms) {
    m_rpc_timeout_ms = std::max(1, ms);
}
void connection::set_ca_cert_file(const QString& path) {
    m_ca_cert_file = path;
}
void connection::set_auto_reconnect(bool on) {
    m_auto_reconnect = on;
}

QString connection::display_url() const {
    return mask_url_password(m_raw_url);
}

void connection::connect_to_host(const QString& url) {
    m_raw_url = url;
    m_url = url_parts::parse(url);
    m_wanted = true;
    m_failed_attempts = 0;
    if (!m_url.valid) {
        log_line(m_log, Error) << "amqp: cannot connect to " << display_url() << ": " << m_url.error;
        m_wanted = false;
        return;
    }
    schedule_reconnect(0);
}

void connection::disconnect_from_host() {
    m_wanted = false;
    m_reconnect_timer.stop();
    if (m_state) {
        amqp_connection_close(m_state, AMQP_REPLY_SUCCESS);
        teardown();
        Q_EMIT disconnected();
    }
}

void connection::schedule_reconnect(int delay_ms) {
    if (!m_wanted || m_state) {
        return;
    }
    m_reconnect_timer.start(delay_ms);
}

void connection::attempt() {
    if (!m_wanted || m_state) {
        return;
    }
    QString why;
    if (!open_link(&why)) {
        ++m_failed_attempts;
        const int delay = backoff_ms(m_failed_attempts);
        // The first failure is an error; while the broker stays away, each retry is debug.
        log_line(m_log, m_failed_attempts == 1 ? Error : Debug)
            << "amqp: connection to " << display_url() << " failed: " << why << "; retrying in "
            << QString::number(delay) << " ms";
        if (m_auto_reconnect) {
            schedule_reconnect(delay);
        }
        return;
    }
    if (m_failed_attempts > 1) {
        log_line(m_log, Info) << "amqp: connected to " << display_url() << " after "
                              << QString::number(m_failed_attempts) << " failed attempts";
    }
    m_failed_attempts = 0;
    ++m_generation;
    m_up_since.start();
    log_line(m_log, Debug) << "amqp: connected to " << display_url() << ", heartbeat "
                           << QString::number(m_negotiated_heartbeat) << " s";
    Q_EMIT connected();
    schedule_drain();
}

bool connection::open_link(QString* why) {
    amqp_connection_state_t state = amqp_new_connection();
    if (!state) {
        *why = "out of memory";
        return false;
    }
    amqp_socket_t* socket = nullptr;
    if (m_url.tls) {
        socket = amqp_ssl_socket_new(state);
        if (socket) {
            const bool verify = !m_ca_cert_file.isEmpty();
            amqp_ssl_socket_set_verify_peer(socket, verify ? 1 : 0);
            amqp_ssl_socket_set_verify_hostname(socket, verify ? 1 : 0);
            if (verify && amqp_ssl_socket_set_cacert(socket, m_ca_cert_file.toLocal8Bit().constData()) !=
                              AMQP_STATUS_OK) {
                *why = "cannot read the CA file " + m_ca_cert_file;
                amqp_destroy_connection(state);
                return false;
            }
        }
    } else {
        socket = amqp_tcp_socket_new(state);
    }
    if (!socket) {
        *why = "cannot create a socket";
        amqp_destroy_connection(state);
        return false;
    }
    const timeval connect_tv = to_timeval(connect_timeout_ms);
    const int opened =
        amqp_socket_open_noblock(socket, m_url.host.toUtf8().constData(), m_url.port, &connect_tv);
    if (opened != AMQP_STATUS_OK) {
        *why = QString::fromUtf8(amqp_error_string2(opened));
        amqp_destroy_connection(state);
        return false;
    }
    const timeval handshake_tv = to_timeval(m_rpc_timeout_ms);
    amqp_set_handshake_timeout(state, &handshake_tv);
    const QString vhost = m_vhost_override.isEmpty() ? m_url.vhost : m_vhost_override;
    const amqp_rpc_reply_t login = amqp_login(
        state, vhost.toUtf8().constData(), 0, AMQP_DEFAULT_FRAME_SIZE, m_heartbeat_s, AMQP_SASL_METHOD_PLAIN,
        m_url.user.toUtf8().constData(), m_url.password.toUtf8().constData());
    if (login.reply_type != AMQP_RESPONSE_NORMAL) {
        *why = "login to vhost " + vhost + " refused: " + reply_text(login);
        amqp_destroy_connection(state);
        return false;
    }
    const timeval rpc_tv = to_timeval(m_rpc_timeout_ms);
    amqp_set_rpc_timeout(state, &rpc_tv);

    const int fd = amqp_get_sockfd(state);
    // Unacknowledged outgoing data older than the write time-out breaks the connection,
    // so a send into a dead peer cannot hang.
    const unsigned user_timeout = unsigned(m_write_timeout_ms);
    setsockopt(fd, IPPROTO_TCP, TCP_USER_TIMEOUT, &user_timeout, sizeof user_timeout);

    m_state = state;
    m_negotiated_heartbeat = amqp_get_heartbeat(state);
    m_open_channels.clear();
    m_partial.clear();
    m_next_channel = 1;
    m_notifier = new QSocketNotifier(fd, QSocketNotifier::Read, this);
    connect(m_notifier, &QSocketNotifier::activated, this, &connection::pump);
    // Heartbeats are read and sent only inside library calls: pump several times per
    // interval. Without heartbeats the timer still picks up anything left buffered.
    const int period_ms =
        m_negotiated_heartbeat > 0 ? std::max(200, m_negotiated_heartbeat * 1000 / 4) : 1000;
    m_heartbeat_timer.start(period_ms);
    return true;
}

void connection::teardown() {
    m_heartbeat_timer.stop();
    m_uncork_timer.stop();
    m_corked = false;  // the option goes with the socket
    if (m_notifier) {
        // The notifier must go before the library closes its descriptor.
        m_notifier->setEnabled(false);
        delete m_notifier;
        m_notifier = nullptr;
    }
    if (m_state) {
        amqp_destroy_connection(m_state);
        m_state = nullptr;
    }
    m_open_channels.clear();
    m_partial.clear();
    m_delivered_since_drained = false;
}

void connection::lose(const QString& reason, int reconnect_delay_ms) {
    if (!m_state) {
        return;
    }
    m_last_error = reason;
    const bool was_stable = m_up_since.isValid() && m_up_since.elapsed() >= stable_connection_ms;
    log_line(m_log, Error) << "amqp: connection to " << display_url() << " lost: " << reason;
    teardown();
    if (reconnect_delay_ms < 0) {
        // A connection that dies right after it came up counts as a failed attempt, so a
        // broker that keeps closing us never makes us spin.
        if (!was_stable) {
            ++m_failed_attempts;
        }
        reconnect_delay_ms = was_stable ? 0 : backoff_ms(m_failed_attempts);
    }
    if (m_auto_reconnect) {
        schedule_reconnect(reconnect_delay_ms);
    }
    Q_EMIT disconnected();
}

void connection::reset(const QString& reason) {
    if (!m_state) {
        return;
    }
    uncork();
    amqp_connection_close(m_state, AMQP_REPLY_SUCCESS);
    lose(reason + "; closing to retry", max_backoff_ms);
}

void connection::schedule_drain() {
    if (!m_state || m_drain_scheduled) {
        return;
    }
    // Frames that a blocking call has read ahead (or queued) sit in the library, where the
    // socket notifier cannot see them: read them on the next turn of the event loop.
    if (!amqp_frames_enqueued(m_state) && !amqp_data_in_buffer(m_state)) {
        return;
    }
    m_drain_scheduled = true;
    QTimer::singleShot(0, this, [this] {
        m_drain_scheduled = false;
        pump();
    });
}

// Reads the frames available now, for at most a turn's budget: under a steady stream
// the socket never runs dry, and the rest of the process (timers, the other
// connections, commands) must still get its turn. May run nested (a handler of a
// delivery can spin a local event loop); each frame is handled completely before any
// signal goes out.
void connection::pump() {
    QPointer<connection> self(this);
    QElapsedTimer turn;
    turn.start();
    while (self && m_state) {
        if (turn.elapsed() >= pump_budget_ms) {
            end_burst();
            // What is left on the socket wakes the notifier again; what the library
            // holds is read on the next turn.
            schedule_drain();
            return;
        }
        amqp_frame_t frame;
        // A zero time-out would also mask the library's heartbeat check; one microsecond
        // keeps both: nothing waits, and a silent peer is detected here.
        timeval no_wait{0, 1};
        const int status = amqp_simple_wait_frame_noblock(m_state, &frame, &no_wait);
        if (status == AMQP_STATUS_TIMEOUT) {
            // Nothing queued, nothing buffered, nothing on the socket.
            amqp_maybe_release_buffers(m_state);
            end_burst();
            return;
        }
        if (status != AMQP_STATUS_OK) {
            lose(status == AMQP_STATUS_HEARTBEAT_TIMEOUT
                     ? QString("no heartbeat from the broker for two intervals")
                     : "read failed: " + QString::fromUtf8(amqp_error_string2(status)));
            return;
        }
        handle_frame(frame);
    }
}

void connection::end_burst() {
    if (m_delivered_since_drained) {
        m_delivered_since_drained = false;
        Q_EMIT drained();
    }
}

// Each publish, ack or reject would otherwise be one TCP segment through the loopback
// and one wake-up of the broker; held until the event loop turns, the writes of a burst
// of deliveries go out in a few full segments. A blocking request uncorks first.
void connection::cork() {
    if (m_corked || !m_state) {
        return;
    }
    const int on = 1;
    if (setsockopt(amqp_get_sockfd(m_state), IPPROTO_TCP, TCP_CORK, &on, sizeof on) != 0) {
        return;  // not TCP (or refused): writes simply go out one by one
    }
    m_corked = true;
    m_uncork_timer.start();
}

void connection::uncork() {
    if (!m_corked || !m_state) {
        return;
    }
    m_corked = false;
    m_uncork_timer.stop();
    const int off = 0;
    setsockopt(amqp_get_sockfd(m_state), IPPROTO_TCP, TCP_CORK, &off, sizeof off);
}

queue* connection::create_queue(const QString& name) {
    return new queue(*this, m_log, name, this);
}

exchange* connection::create_exchange(const QString& name) {
    return new exchange(*this, m_log, name, this);
}

}  // namespace amqp
