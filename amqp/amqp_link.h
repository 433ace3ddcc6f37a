#pragma once

#include <QString>
#include <QVariantHash>
#include <optional>

#include "amqp/amqp_url.h"
#include "app/config.h"

struct amqp_connection_state_t_;

namespace amqp {

// What a connection sets up before the event loop takes it over: the queue it consumes
// (declared, bound, its prefetch window set, consumed) or a channel to publish on.
struct link_plan {
    struct queue_setup {
        QString name;
        int options = 2;  // declare option bits of amqp::queue
        QVariantHash arguments;
        amqp_bindings bindings;
        int prefetch = 0;  // 0: no basic.qos
        bool consume = false;
        int consume_options = 0;  // consume option bits of amqp::queue
    };
    std::optional<queue_setup> queue;
    bool publish_channel = false;
};

struct link_settings {
    url_parts url;
    QString vhost;
    int heartbeat_s = 10;
    int connect_timeout_ms = 5000;
    int rpc_timeout_ms = 10000;
    int write_timeout_ms = 5000;
    QString ca_cert_file;
};

// A link as a helper thread hands it over: open and set up, or the reason why not.
struct link_result {
    amqp_connection_state_t_* state = nullptr;
    QString error;
    // The broker answered and said no (a declare or bind refused, access refused): trying
    // again soon will not help, the operator must change something.
    bool refused = false;
    int negotiated_heartbeat = 0;
    uint16_t queue_channel = 0;
    QString declared_queue;
    QString consumer_tag;
    uint16_t publish_channel = 0;
    uint16_t last_channel = 0;  // the highest channel the set-up opened
};

// Connects, logs in and carries out the plan: blocking (name lookup, TCP, TLS, login and
// each request wait up to their time-outs), so it runs on a helper thread. Never logs.
link_result establish_link(const link_settings& settings, const link_plan& plan);

// Closes a link politely (the broker requeues its unacknowledged deliveries at once) and
// frees it, on a helper thread of its own: the close waits for the broker's answer.
void close_link_in_background(amqp_connection_state_t_* state);

// What an operator should change after the broker refused a request with this reply.
QString refusal_hint(const QString& request, int reply_code);

}  // namespace amqp
