#pragma once

#include <QElapsedTimer>
#include <QHash>
#include <QObject>
#include <QSet>
#include <QString>
#include <QTimer>
#include <QVariantHash>
#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>

#include "amqp/amqp_link.h"
#include "amqp/amqp_message.h"
#include "amqp/amqp_url.h"
#include "app/logger.h"

class QSocketNotifier;
struct amqp_connection_state_t_;
struct amqp_frame_t_;

namespace amqp {

class queue;
class exchange;

// One broker connection on the Qt event loop, over the synchronous rabbitmq-c library.
//
// Nothing that waits on the network runs on the event loop: a helper thread connects
// (name lookup, TCP, TLS, login) and carries out the owner's set-up plan (the queue it
// consumes, a channel to publish on), then hands the ready link over; a clean close
// waits for the broker on a helper thread too. While the event loop is busy with long
// work, a heartbeat keeper thread sends the heartbeats the broker needs to keep the link.
// Reading is driven by a socket notifier and by a timer that also services heartbeats.
// Requests made later from the event loop (a queue declared by a tool, a channel opened
// again after the broker closed one) block for at most the RPC time-out. Any loss (socket
// closed, read or write error, heartbeat silence, RPC time-out, connection.close from the
// broker) emits disconnected() and, with auto-reconnect on, tries again after a short
// back-off; a refusal by the broker is retried less and less often, up to once a minute.
// Delivery tags and channels are valid for one connection only; generation() tells
// connections apart.
class connection : public QObject {
    Q_OBJECT
public:
    static constexpr int default_heartbeat_s = 10;
    static constexpr int default_write_timeout_ms = 5000;
    static constexpr int default_rpc_timeout_ms = 10000;
    static constexpr int connect_timeout_ms = 5000;
    static constexpr int max_backoff_ms = 3000;
    static constexpr int max_refusal_backoff_ms = 60000;

    explicit connection(logger& log, QObject* parent = nullptr);
    ~connection() override;
    Q_DISABLE_COPY(connection)

    // Settings apply from the next connection attempt on.
    void set_virtual_host(const QString& vhost);  // overrides the URL's path
    void set_heartbeat(int seconds);              // 0 switches heartbeats off
    void set_write_timeout(int ms);
    void set_rpc_timeout(int ms);
    void set_ca_cert_file(const QString& path);  // amqps: verify the broker against this CA
    // Every publication on this connection carries this user_id property (empty: none).
    // The broker refuses one that is not the connection's own user.
    void set_user_id(const QString& user) { m_user_id = user; }
    void set_auto_reconnect(bool on);
    // What to set up before the link is handed over; applies from the next attempt on.
    void set_plan(const link_plan& plan) { m_plan = plan; }
    const link_plan& plan() const { return m_plan; }
    // What the plan gave on the current link (its channels, the consumer tag).
    const link_result& setup() const { return m_setup; }

    // Starts connecting from the event loop (so settings made right after still apply).
    void connect_to_host(const QString& url);
    void disconnect_from_host();

    bool is_connected() const { return m_state != nullptr; }
    unsigned generation() const { return m_generation; }
    int negotiated_heartbeat() const { return m_negotiated_heartbeat; }
    const QString& last_error() const { return m_last_error; }
    // The URL for log lines, password masked.
    QString display_url() const;

    // Objects bound to this connection; both are children of it and stay valid for the
    // current connection only (they turn inert when it is lost).
    queue* create_queue(const QString& name);
    exchange* create_exchange(const QString& name);

    // Protocol operations. Each returns false on failure; the reason is logged and kept
    // in last_error(). A failure that breaks the connection also drops it.
    uint16_t open_channel();  // 0 on failure
    bool declare_queue(uint16_t channel, const QString& name, int options, const QVariantHash& arguments,
                       QString* declared_name = nullptr);
    bool declare_exchange(uint16_t channel, const QString& name, const QString& type, bool durable);
    bool bind_queue(uint16_t channel, const QString& queue, const QString& exchange, const QString& key);
    bool set_qos(uint16_t channel, uint16_t prefetch_count, uint32_t prefetch_size);
    bool consume(uint16_t channel, const QString& queue, bool no_local, bool no_ack, bool exclusive,
                 QString* consumer_tag);
    bool cancel(uint16_t channel, const QString& consumer_tag);
    bool ack(uint16_t channel, uint64_t delivery_tag, bool multiple);
    bool reject(uint16_t channel, uint64_t delivery_tag, bool requeue);
    bool publish(uint16_t channel, const QString& exchange, const QByteArray& routing_key,
                 const QByteArray& body, const QString& content_type);
    // Sends what corked writes hold now.
    void flush_writes() { uncork(); }
    bool channel_open(uint16_t channel) const { return m_open_channels.contains(channel); }

    // Closes the connection after a failure the broker will not get over by itself (a
    // refused declare, for one) and reconnects after the longest back-off.
    void reset(const QString& reason);

Q_SIGNALS:
    void connected();
    void disconnected();
    void delivered(const amqp::message& msg);
    void channel_closed(uint16_t channel, int reply_code, const QString& reply_text);
    void consumer_cancelled(uint16_t channel, const QString& consumer_tag);

private:
    class heartbeat_keeper;
    // Where a helper thread leaves the link it established; target is cleared when the
    // connection no longer wants it.
    struct attempt_mailbox {
        std::mutex mutex;
        connection* target = nullptr;
    };

    void attempt();
    void abandon_attempt();
    void adopt(const link_result& result);
    void attempt_failed(const link_result& result);
    void lose(const QString& reason, int reconnect_delay_ms = -1, bool polite = false);
    // polite: close the link with the broker (on a helper thread) instead of dropping it.
    void teardown(bool polite = false);
    void schedule_reconnect(int delay_ms);
    void schedule_drain();
    void pump();
    void handle_frame(const amqp_frame_t_& frame);
    void handle_method(uint16_t channel, uint32_t method_id, void* decoded);
    void finish_delivery(uint16_t channel);
    bool check_reply(uint16_t channel, const char* what);
    bool check_status(int status, const char* what);
    void close_channel_after_broker(uint16_t channel, int code, const QString& text, bool log = true);
    void cork();
    void uncork();

    logger& m_log;
    url_parts m_url;
    QString m_raw_url;
    QString m_vhost_override;
    QString m_ca_cert_file;
    QString m_user_id;
    int m_heartbeat_s = default_heartbeat_s;
    int m_negotiated_heartbeat = 0;
    int m_write_timeout_ms = default_write_timeout_ms;
    int m_rpc_timeout_ms = default_rpc_timeout_ms;
    bool m_auto_reconnect = true;
    bool m_wanted = false;  // connect_to_host called and not withdrawn

    amqp_connection_state_t_* m_state = nullptr;  // the library's connection while up
    // Serialises every use of m_state between the event loop and the heartbeat keeper.
    std::recursive_mutex m_io;
    std::atomic<qint64> m_last_pump_ms{0};
    std::unique_ptr<heartbeat_keeper> m_keeper;
    link_plan m_plan;
    link_result m_setup;
    std::shared_ptr<attempt_mailbox> m_attempt;
    int m_refusals = 0;
    QElapsedTimer m_last_refusal_log;
    QString m_last_refusal;
    unsigned m_generation = 0;
    QSocketNotifier* m_notifier = nullptr;
    QTimer m_heartbeat_timer;
    QTimer m_reconnect_timer;
    QElapsedTimer m_up_since;
    int m_failed_attempts = 0;
    bool m_drain_scheduled = false;
    // Fire-and-forget writes (publish, ack, reject) of one turn of the event loop are
    // held in the socket and leave together when control returns to the loop.
    bool m_corked = false;
    QTimer m_uncork_timer;
    QString m_last_error;

    QSet<uint16_t> m_open_channels;
    uint16_t m_next_channel = 1;
    // Deliveries whose content frames have not all arrived yet, by channel.
    struct partial_delivery {
        message msg;
        uint64_t body_size = 0;
        bool have_header = false;
        bool returned = false;  // basic.return content: read and dropped
    };
    QHash<uint16_t, partial_delivery> m_partial;
};

}  // namespace amqp
