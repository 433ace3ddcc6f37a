#include "tools/cli/exchange_link.h"

#include <QEventLoop>
#include <QUuid>

#include "amqp/amqp_connection.h"
#include "amqp/amqp_url.h"

namespace tool {

namespace {
constexpr int probe_interval_ms = 200;
constexpr int exclusive_auto_delete = 0x04 | 0x08;
}  // namespace

exchange_link::exchange_link(logger& log, const link_settings& settings, QObject* parent) : QObject(parent) {
    const QString id = QUuid::createUuid().toString(QUuid::Id128);
    m_probe_key = settings.name_prefix + ".probe." + id;

    rabbit_receiver_cfg queue;
    queue.url = settings.url;
    queue.vhost = settings.vhost;
    queue.queue = settings.name_prefix + "." + id;
    for (const QString& key : settings.keys) {
        queue.bindings.append({settings.exchange, key});
    }
    queue.bindings.append({settings.exchange, m_probe_key});
    queue.queue_options = exclusive_auto_delete;
    queue.prefetch = 100;
    m_receiver = std::make_unique<rabbit_receiver>(log, queue, nullptr, true, true);
    connect(m_receiver.get(), &rabbit_receiver::raw_routekey_data_received, this,
            [this](const QByteArray& payload, const QString& key, uint64_t tag) {
                on_delivery(payload, key, tag);
            });

    rabbit_publisher_config publisher;
    publisher.url = settings.url;
    publisher.vhost = settings.vhost;
    publisher.exchange = settings.exchange;
    m_publisher = std::make_unique<rabbit_publisher_impl>(log, publisher);
    // Commands carry the user they are sent as (the broker checks it), so a service that
    // authorizes commands knows who asks.
    m_publisher->transport().set_user_id(amqp::url_parts::parse(settings.url).user);

    m_probe_timer.setInterval(probe_interval_ms);
    connect(&m_probe_timer, &QTimer::timeout, this, &exchange_link::send_probe);
    m_probe_timer.start();
}

exchange_link::~exchange_link() = default;

bool exchange_link::wait_ready(int timeout_ms) {
    if (m_ready) {
        return true;
    }
    QEventLoop loop;
    QTimer limit;
    limit.setSingleShot(true);
    connect(&limit, &QTimer::timeout, &loop, &QEventLoop::quit);
    connect(this, &exchange_link::ready, &loop, &QEventLoop::quit);
    limit.start(timeout_ms);
    loop.exec();
    return m_ready;
}

QString exchange_link::last_error() const {
    const QString receiver_error = m_receiver->transport().last_error();
    return receiver_error.isEmpty() ? m_publisher->transport().last_error() : receiver_error;
}

QString exchange_link::display_url() const {
    return m_receiver->transport().display_url();
}

void exchange_link::publish(const QByteArray& body, const QString& routing_key) {
    m_publisher->publish_string(body, routing_key.toLatin1(), "text/plain");
}

void exchange_link::send_probe() {
    // A publisher without its link would wait; the next tick tries again.
    if (!m_ready && m_publisher->is_connected()) {
        publish(QByteArrayLiteral("{}"), m_probe_key);
    }
}

void exchange_link::on_delivery(const QByteArray& payload, const QString& routing_key, uint64_t tag) {
    m_receiver->ack_message(tag, false);
    if (routing_key == m_probe_key) {
        if (!m_ready) {
            m_ready = true;
            m_probe_timer.stop();
            Q_EMIT ready();
        }
        return;
    }
    Q_EMIT received(payload, routing_key);
}

}  // namespace tool
