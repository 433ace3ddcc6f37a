#pragma once

#include <QStringList>
#include <cstdint>
#include <functional>
#include <memory>

#include "amqp/amqp_message.h"
#include "app/logger.h"
#include "bench/broker.h"

namespace amqp {
class connection;
class queue;
}  // namespace amqp

namespace bench {

// A client application's queue that the bench empties: exclusive, deleted with the
// connection, bound to the exchange with the given keys, consumed without
// acknowledgements so that the client side costs the broker as little as it can.
class client_drain {
public:
    using handler = std::function<void(const amqp::message& msg, int64_t arrival_us)>;

    client_drain(logger& log, const broker& target, const QString& exchange, const QStringList& keys);
    ~client_drain();
    client_drain(const client_drain&) = delete;
    client_drain& operator=(const client_drain&) = delete;

    bool wait_ready(int timeout_ms = 15000);
    void on_message(handler h) { m_handler = std::move(h); }

    uint64_t received() const { return m_received; }
    uint64_t bytes() const { return m_bytes; }
    void reset_counts() { m_received = m_bytes = 0; }

private:
    bool set_up();
    void drain_buffer();

    logger& m_log;
    QString m_exchange;
    QStringList m_keys;
    QString m_name;
    std::unique_ptr<amqp::connection> m_connection;
    amqp::queue* m_queue = nullptr;  // owned by the connection
    bool m_ready = false;
    handler m_handler;
    uint64_t m_received = 0;
    uint64_t m_bytes = 0;
};

}  // namespace bench
