#pragma once

#include <QByteArray>
#include <QObject>
#include <QString>
#include <memory>

#include "app/config.h"
#include "app/logger.h"

namespace amqp {
class connection;
}  // namespace amqp
namespace metrics {
class counter;
}  // namespace metrics

// Publishes to one existing exchange over a broker connection of its own. The exchange
// is never declared.
class rabbit_publisher_impl : public QObject {
    Q_OBJECT
public:
    rabbit_publisher_impl(logger& log, const rabbit_publisher_config& cfg, QObject* parent = nullptr);
    ~rabbit_publisher_impl() override;
    Q_DISABLE_COPY(rabbit_publisher_impl)

    bool is_connected() const;
    // The broker connection, for its settings before the event loop runs.
    amqp::connection& transport() const;
    // Counts each message handed to the broker into `published`, each one dropped (no
    // link) into `dropped`; null counts nothing.
    void set_counters(metrics::counter* published, metrics::counter* dropped);

Q_SIGNALS:
    void republish();
    void conn_estimated();

public Q_SLOTS:
    // When not connected, waits up to 1000 ms for the link (ending as soon as it is up),
    // then drops the message with a debug line.
    virtual void publish_string(QByteArray string, QByteArray routing_key, QString mimeType);

private Q_SLOTS:
    void connected();
    void disconnected();

private:
    struct impl;
    std::unique_ptr<impl> m_impl;
};

template <class Config>
class rabbit_publisher : public rabbit_publisher_impl {
public:
    rabbit_publisher(logger& log, const Config& cfg, QObject* parent = nullptr)
        : rabbit_publisher_impl(log, cfg, parent) {}
};
