#include "amqp/amqp_connection.h"

#include <amqp.h>
#include <amqp_framing.h>
#include <amqp_ssl_socket.h>
#include <amqp_tcp_socket.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <QDateTime>
#include <QPointer>
#include <QSocketNotifier>
#include <algorithm>
#include <condition_variable>
#include <thread>

#include "amqp/amqp_exchange.h"
#include "amqp/amqp_queue.h"

namespace amqp {

namespace {

// Back-off after the n-th failed attempt in a row: 250, 500, 1000, 2000, then 3000 ms.
int backoff_ms(int failed_attempts) {
    if (failed_attempts <= 0) {
        return 0;
    }
    const int shift = std::min(failed_attempts - 1, 4);
    return std::min(250 << shift, connection::max_backoff_ms);
}

// After the n-th refusal in a row: 3, 6, 12, 24, 48, then 60 s.
int refusal_backoff_ms(int refusals) {
    const int shift = std::min(std::max(refusals, 1) - 1, 5);
    return std::min(connection::max_backoff_ms << shift, connection::max_refusal_backoff_ms);
}

// A refusal that goes on is told again at most this often.
constexpr qint64 refusal_log_interval_ms = 60000;

// A connection that stayed up this long counts as healthy: its loss is retried at once.
constexpr int stable_connection_ms = 2000;

// The longest one reading turn keeps the event loop.
constexpr qint64 pump_budget_ms = 10;

// A link on its way from the helper thread to the event loop. When the connection goes
// before the queued hand-over runs, Qt drops the call, and the link is closed here
// instead of being lost with it.
class handed_link {
public:
    explicit handed_link(link_result result) : m_result(std::move(result)) {}
    ~handed_link() {
        if (m_result.state) {
            close_link_in_background(m_result.state);
        }
    }
    Q_DISABLE_COPY(handed_link)

    link_result take() {
        link_result taken = m_result;
        m_result.state = nullptr;
        return taken;
    }

private:
    link_result m_result;
};
}  // namespace

// Sends heartbeats while the event loop is kept from reading the link (long work in a
// handler), so that the broker does not take the link for dead. It never blocks on the
// link: when the event loop is using it, it simply tries again later.
class connection::heartbeat_keeper {
public:
    heartbeat_keeper(connection& conn, int heartbeat_s)
        : m_conn(conn), m_interval_ms(heartbeat_s * 1000 / 2) {
        if (heartbeat_s > 0) {
            m_thread = std::thread([this] { run(); });
        }
    }
    ~heartbeat_keeper() {
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_stop = true;
        }
        m_wake.notify_all();
        if (m_thread.joinable()) {
            m_thread.join();
        }
    }
    heartbeat_keeper(const heartbeat_keeper&) = delete;
    heartbeat_keeper& operator=(const heartbeat_keeper&) = delete;

private:
    void run() {
        std::unique_lock<std::mutex> lock(m_mutex);
        while (!m_wake.wait_for(lock, std::chrono::milliseconds(m_interval_ms), [this] { return m_stop; })) {
            const qint64 idle = QDateTime::currentMSecsSinceEpoch() - m_conn.m_last_pump_ms.load();
            if (idle < m_interval_ms) {
                continue;  // the event loop reads and writes heartbeats itself
            }
            std::unique_lock<std::recursive_mutex> io(m_conn.m_io, std::try_to_lock);
            if (io.owns_lock() && m_conn.m_state) {
                amqp_frame_t beat{};
                beat.frame_type = AMQP_FRAME_HEARTBEAT;
                beat.channel = 0;
                amqp_send_frame(m_conn.m_state, &beat);
            }
        }
    }

    connection& m_conn;
    const int m_interval_ms;
    std::mutex m_mutex;
    std::condition_variable m_wake;
    bool m_stop = false;
    std::thread m_thread;
};

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
    abandon_attempt();
    if (m_state) {
        uncork();
        // A clean close lets the broker requeue unacknowledged deliveries at once.
        teardown(true);
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
    if (m_url.tls && m_ca_cert_file.isEmpty()) {
        log_line(m_log, Warning)
            << "amqp: " << display_url()
            << ": TLS without a CA file (R_CA_CERT): the broker's certificate is not verified";
    }
    schedule_reconnect(0);
}

void connection::disconnect_from_host() {
    m_wanted = false;
    m_reconnect_timer.stop();
    abandon_attempt();
    if (m_state) {
        uncork();
        teardown(true);
        Q_EMIT disconnected();
    }
}

void connection::schedule_reconnect(int delay_ms) {
    if (!m_wanted || m_state) {
        return;
    }
    m_reconnect_timer.start(delay_ms);
}

// A helper thread connects, logs in and sets the plan up; the event loop goes on and
// takes the link over when the thread hands it back (or the reason why not).
void connection::attempt() {
    if (!m_wanted || m_state || m_attempt) {
        return;
    }
    link_settings settings;
    settings.url = m_url;
    settings.vhost = m_vhost_override.isEmpty() ? m_url.vhost : m_vhost_override;
    settings.heartbeat_s = m_heartbeat_s;
    settings.connect_timeout_ms = connect_timeout_ms;
    settings.rpc_timeout_ms = m_rpc_timeout_ms;
    settings.write_timeout_ms = m_write_timeout_ms;
    settings.ca_cert_file = m_ca_cert_file;
    auto mailbox = std::make_shared<attempt_mailbox>();
    mailbox->target = this;
    m_attempt = mailbox;
    const link_plan plan = m_plan;
    std::thread([mailbox, settings, plan] {
        link_result result = establish_link(settings, plan);
        std::lock_guard<std::mutex> lock(mailbox->mutex);
        if (!mailbox->target) {
            // The connection went away meanwhile: nobody takes the link over.
            close_link_in_background(result.state);
            return;
        }
        connection* target = mailbox->target;
        auto handed = std::make_shared<handed_link>(std::move(result));
        QMetaObject::invokeMethod(
            target, [target, handed] { target->adopt(handed->take()); }, Qt::QueuedConnection);
    }).detach();
}

void connection::abandon_attempt() {
    if (!m_attempt) {
        return;
    }
    std::lock_guard<std::mutex> lock(m_attempt->mutex);
    m_attempt->target = nullptr;
    m_attempt.reset();
}

void connection::adopt(const link_result& result) {
    m_attempt.reset();
    if (!result.state) {
        attempt_failed(result);
        return;
    }
    if (!m_wanted) {
        close_link_in_background(result.state);
        return;
    }
    m_refusals = 0;
    m_setup = result;
    m_negotiated_heartbeat = result.negotiated_heartbeat;
    m_open_channels.clear();
    m_partial.clear();
    for (uint16_t channel = 1; channel <= result.last_channel; ++channel) {
        m_open_channels.insert(channel);
    }
    m_next_channel = uint16_t(result.last_channel + 1);
    {
        std::lock_guard<std::recursive_mutex> io(m_io);
        m_state = result.state;
    }
    m_notifier = new QSocketNotifier(amqp_get_sockfd(m_state), QSocketNotifier::Read, this);
    connect(m_notifier, &QSocketNotifier::activated, this, &connection::pump);
    // Heartbeats are read and sent inside library calls: pump several times per interval.
    // Without heartbeats the timer still picks up anything left buffered.
    const int period_ms =
        m_negotiated_heartbeat > 0 ? std::max(200, m_negotiated_heartbeat * 1000 / 4) : 1000;
    m_heartbeat_timer.start(period_ms);
    m_last_pump_ms.store(QDateTime::currentMSecsSinceEpoch());
    m_keeper = std::make_unique<heartbeat_keeper>(*this, m_negotiated_heartbeat);

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

void connection::attempt_failed(const link_result& result) {
    if (!m_wanted) {
        return;
    }
    ++m_failed_attempts;
    int delay = backoff_ms(m_failed_attempts);
    if (result.refused) {
        // The broker said no: only the operator can change that. Say it with the broker's
        // words at most once a minute, and ask again less and less often.
        ++m_refusals;
        delay = refusal_backoff_ms(m_refusals);
        if (!m_last_refusal_log.isValid() || m_last_refusal_log.elapsed() >= refusal_log_interval_ms ||
            result.error != m_last_refusal) {
            log_line(m_log, Error) << "amqp: connection to " << display_url() << " refused: " << result.error
                                   << "; retrying in " << QString::number(delay / 1000) << " s";
            m_last_refusal_log.start();
            m_last_refusal = result.error;
        }
    } else {
        // The first failure is an error; while the broker stays away, each retry is debug.
        log_line(m_log, m_failed_attempts == 1 ? Error : Debug)
            << "amqp: connection to " << display_url() << " failed: " << result.error << "; retrying in "
            << QString::number(delay) << " ms";
    }
    m_last_error = result.error;
    if (m_auto_reconnect) {
        schedule_reconnect(delay);
    }
}

void connection::teardown(bool polite) {
    m_keeper.reset();
    m_heartbeat_timer.stop();
    m_uncork_timer.stop();
    m_corked = false;  // the option goes with the socket
    if (m_notifier) {
        // The notifier must go before the library closes its descriptor.
        m_notifier->setEnabled(false);
        delete m_notifier;
        m_notifier = nullptr;
    }
    amqp_connection_state_t_* state = nullptr;
    {
        std::lock_guard<std::recursive_mutex> io(m_io);
        std::swap(state, m_state);
    }
    if (polite) {
        // The close waits for the broker's answer: not on the event loop.
        close_link_in_background(state);
    } else if (state) {
        amqp_destroy_connection(state);
    }
    m_setup = link_result();
    m_open_channels.clear();
    m_partial.clear();
}

void connection::lose(const QString& reason, int reconnect_delay_ms, bool polite) {
    if (!m_state) {
        return;
    }
    m_last_error = reason;
    const bool was_stable = m_up_since.isValid() && m_up_since.elapsed() >= stable_connection_ms;
    log_line(m_log, Error) << "amqp: connection to " << display_url() << " lost: " << reason;
    teardown(polite);
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
    lose(reason + "; closing to retry", max_backoff_ms, true);
}

void connection::schedule_drain() {
    if (!m_state || m_drain_scheduled) {
        return;
    }
    // Frames that a blocking call has read ahead (or queued) sit in the library, where the
    // socket notifier cannot see them: read them on the next turn of the event loop.
    {
        std::lock_guard<std::recursive_mutex> io(m_io);
        if (!amqp_frames_enqueued(m_state) && !amqp_data_in_buffer(m_state)) {
            return;
        }
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
            // What is left on the socket wakes the notifier again; what the library
            // holds is read on the next turn.
            schedule_drain();
            return;
        }
        amqp_frame_t frame;
        int status = 0;
        {
            std::lock_guard<std::recursive_mutex> io(m_io);
            m_last_pump_ms.store(QDateTime::currentMSecsSinceEpoch());
            // A zero time-out would also mask the library's heartbeat check; one microsecond
            // keeps both: nothing waits, and a silent peer is detected here.
            timeval no_wait{0, 1};
            status = amqp_simple_wait_frame_noblock(m_state, &frame, &no_wait);
            if (status == AMQP_STATUS_TIMEOUT) {
                // Nothing queued, nothing buffered, nothing on the socket.
                amqp_maybe_release_buffers(m_state);
            }
        }
        if (status == AMQP_STATUS_TIMEOUT) {
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
