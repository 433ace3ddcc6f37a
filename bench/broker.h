#pragma once

#include <sys/types.h>
#include <QString>
#include <cstdint>
#include <memory>

#include "app/config.h"
#include "app/logger.h"

namespace amqp {
class connection;
}  // namespace amqp

namespace bench {

// The broker a bench run talks to.
struct broker {
    QString url;
    QString vhost = "/api";
    pid_t pid = 0;  // the broker's beam.smp process, 0 when unknown
    bool started_here = false;
};

// The given URL, or else the private test node: used when it answers, started with its
// script when nothing does. Returns false with `error` set when no broker can be had.
bool open_broker(const QString& given_url, broker& out, QString& error);
// Stops the private test node (only ever for a node this process started).
void stop_private_broker();
// Whether something accepts TCP connections at the URL's host and port.
bool port_answers(const QString& url);

// Declares and binds queues, and deletes them afterwards, over a connection of its own.
class broker_admin {
public:
    broker_admin(logger& log, const broker& target);
    ~broker_admin();
    broker_admin(const broker_admin&) = delete;
    broker_admin& operator=(const broker_admin&) = delete;

    bool wait_ready(int timeout_ms = 15000);
    // Declares the queue with the option bits of the service's queue-declare and binds it
    // with each pair; the queue is ready for publication when this returns true.
    bool declare(const QString& queue, int options, const amqp_bindings& bindings);
    // Deletes the queue (best effort: through the amqp-tools client).
    bool remove(const QString& queue);
    QString error() const;

private:
    broker m_target;
    std::unique_ptr<amqp::connection> m_connection;
    uint16_t m_channel = 0;
};

}  // namespace bench
