#include "amqp/rabbit_publisher.h"

#include <QEventLoop>
#include <QPointer>
#include <QTimer>

#include "amqp/amqp_connection.h"
#include "amqp/amqp_exchange.h"
#include "metrics/metrics.h"

namespace {
// How long a publication waits for a link that is down.
constexpr int connect_wait_ms = 1000;
}  // namespace

struct rabbit_publisher_impl::impl {
    impl(rabbit_publisher_impl& owner, logger& log, const rabbit_publisher_config& cfg)
        : client(new amqp::connection(log, &owner)),
          url(cfg.url),
          exchange_name(cfg.exchange),
          vhost(cfg.vhost),
          log(log) {}

    amqp::connection* client = nullptr;  // a child of the publisher
    QString url;
    QPointer<amqp::exchange> exchange;  // created for each connection, owned by the client
    QString exchange_name;
    QString vhost;
    logger& log;
    metrics::counter* published = nullptr;
    metrics::counter* dropped = nullptr;

    void count(metrics::counter* c) {
        if (c) {
            c->inc();
        }
    }
};

rabbit_publisher_impl::rabbit_publisher_impl(logger& log, const rabbit_publisher_config& cfg, QObject* parent)
    : QObject(parent), m_impl(std::make_unique<impl>(*this, log, cfg)) {
    auto* client = m_impl->client;
    connect(client, &amqp::connection::disconnected, this, &rabbit_publisher_impl::disconnected);
    connect(client, &amqp::connection::connected, this, &rabbit_publisher_impl::connected);
    amqp::link_plan plan;
    plan.publish_channel = true;  // opened off the event loop with the link
    client->set_plan(plan);
    client->set_heartbeat(cfg.heartbeat);
    // TLS: the peer is not verified unless a CA file is set.
    if (!cfg.ca_cert.isEmpty()) {
        client->set_ca_cert_file(cfg.ca_cert);
    }
    client->connect_to_host(m_impl->url);
    client->set_auto_reconnect(true);
    client->set_write_timeout(5000);
    client->set_virtual_host(m_impl->vhost);
    log_line(log, Debug) << "rabbit_man_publisher_impl inited to path <<" << mask_url_password(m_impl->url)
                         << ", exchange " << m_impl->exchange_name << ", host " << m_impl->vhost;
}

rabbit_publisher_impl::~rabbit_publisher_impl() {
    delete m_impl->client;
}

bool rabbit_publisher_impl::is_connected() const {
    return m_impl->client->is_connected() && m_impl->exchange;
}

amqp::connection& rabbit_publisher_impl::transport() const {
    return *m_impl->client;
}

void rabbit_publisher_impl::set_counters(metrics::counter* published, metrics::counter* dropped) {
    m_impl->published = published;
    m_impl->dropped = dropped;
}

void rabbit_publisher_impl::connected() {
    auto& d = *m_impl;
    if (d.exchange) {
        QObject::disconnect(d.exchange, nullptr, nullptr, nullptr);
        d.exchange->deleteLater();
    }
    // The exchange must exist on the broker: it is never declared here.
    d.exchange = d.client->create_exchange(d.exchange_name);
    log_line(d.log, Debug) << "rabbit_publisher_impl: Connected";
    Q_EMIT conn_estimated();
}

void rabbit_publisher_impl::disconnected() {
    log_line(m_impl->log, Error) << "rabbit_publisher_impl: Disconnected";
}

void rabbit_publisher_impl::publish_string(QByteArray string, QByteArray routing_key, QString mimeType) {
    auto& d = *m_impl;
    if (!is_connected()) {
        // Other events (broker traffic included) are served meanwhile; the wait ends as
        // soon as the link is up.
        QEventLoop wait;
        QTimer deadline;
        deadline.setSingleShot(true);
        connect(&deadline, &QTimer::timeout, &wait, &QEventLoop::quit);
        connect(this, &rabbit_publisher_impl::conn_estimated, &wait, &QEventLoop::quit);
        deadline.start(connect_wait_ms);
        wait.exec();
    }
    if (!is_connected()) {
        log_line(d.log, Debug) << "Try to publish but not connected";
        d.count(d.dropped);
        return;
    }
    // The routing key ends at its first NUL byte.
    const int nul = routing_key.indexOf('\0');
    const QByteArray key = nul >= 0 ? routing_key.left(nul) : routing_key;
    // The line holds the whole payload: not even built when the level leaves it out.
    if (d.log.level() >= Debug) {
        log_line(d.log, Debug) << "Publishing :" << string << " To route : " << key
                               << ", MIME type : " << mimeType;
    }
    d.count(d.exchange->publish(string, key, mimeType) ? d.published : d.dropped);
}
