#pragma once

#include <QString>
#include <cstdint>

#include "amqp/amqp_link.h"
#include "amqp/amqp_message.h"

struct amqp_connection_state_t_;

namespace amqp {

// A message taken from a queue with basic.get and not acknowledged yet.
struct fetched_message {
    amqp::message msg;
    uint8_t delivery_mode = 0;  // 0: not set by the publisher
};

// A blocking broker session for a tool that moves messages (`quillon-cli replay`), on one
// channel:
// messages are taken one by one with basic.get and published with publisher confirms
// and the mandatory flag, so the broker says for each whether it took it and whether a
// queue received it. Whatever was taken and not acknowledged goes back to its queue
// when the session ends (the broker requeues a closed channel's deliveries).
class replay_session {
public:
    enum class outcome { confirmed, unroutable, refused, failed };

    replay_session() = default;
    ~replay_session();
    replay_session(const replay_session&) = delete;
    replay_session& operator=(const replay_session&) = delete;

    bool open(const amqp::link_settings& settings);
    // The number of messages ready in the queue (a passive declare: the queue must exist).
    bool depth(const QString& queue, uint32_t* count);
    bool enable_confirms();
    // False with an empty error when the queue has nothing more to give.
    bool get(const QString& queue, fetched_message* out);
    // Publishes the body with the message's content type and delivery mode and waits
    // for the broker's confirm.
    outcome publish(const QString& exchange, const QString& routing_key, const fetched_message& message);
    bool ack(uint64_t delivery_tag);

    const QString& error() const { return m_error; }

private:
    bool check_reply(const QString& what);
    bool fail(const QString& why);
    void close();

    amqp_connection_state_t_* m_state = nullptr;
    uint16_t m_channel = 1;
    bool m_channel_open = false;
    uint64_t m_next_publish = 1;  // publish sequence number in confirm mode
    int m_confirm_timeout_ms = 10000;
    QString m_error;
};

}  // namespace amqp
