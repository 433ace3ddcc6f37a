#pragma once

#include <QByteArray>
#include <QObject>
#include <QString>
#include <QStringList>
#include <QTimer>
#include <memory>

#include "amqp/rabbit_publisher.h"
#include "amqp/rabbit_receiver.h"
#include "app/logger.h"

namespace tool {

struct link_settings {
    QString url;
    QString vhost;
    QString exchange;
    QStringList keys;     // routing keys the temporary queue is bound to
    QString name_prefix;  // of the queue's name and of the probe's routing key
};

// A temporary queue (exclusive, deleted with the connection) bound to one exchange, and
// a publisher on the same exchange.
//
// The queue is ready once a probe, published to a routing key of its own that is bound
// last, has come back through it: from then on every binding is in place and nothing
// published to the exchange is missed. Probes are repeated until one arrives.
class exchange_link : public QObject {
    Q_OBJECT
public:
    exchange_link(logger& log, const link_settings& settings, QObject* parent = nullptr);
    ~exchange_link() override;
    Q_DISABLE_COPY(exchange_link)

    // Runs the event loop until the queue is ready or the time is up.
    bool wait_ready(int timeout_ms);
    bool is_ready() const { return m_ready; }
    // Why the link is not up, as far as the broker connection knows.
    QString last_error() const;
    QString display_url() const;
    void publish(const QByteArray& body, const QString& routing_key);

Q_SIGNALS:
    void ready();
    // Every delivery but the probes, acknowledged already.
    void received(QByteArray payload, QString routing_key);

private:
    void send_probe();
    void on_delivery(const QByteArray& payload, const QString& routing_key, uint64_t tag);

    QString m_probe_key;
    bool m_ready = false;
    std::unique_ptr<rabbit_receiver> m_receiver;
    std::unique_ptr<rabbit_publisher_impl> m_publisher;
    QTimer m_probe_timer;
};

}  // namespace tool
