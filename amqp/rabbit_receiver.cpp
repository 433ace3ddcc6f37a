#include "amqp/rabbit_receiver.h"

#include <QDebug>
#include <QPointer>

#include "amqp/amqp_connection.h"
#include "amqp/amqp_queue.h"
#include "model/json_body.h"

struct rabbit_receiver::impl {
    impl(rabbit_receiver& owner, logger& log, const rabbit_receiver_cfg& cfg, bool raw, bool with_route_key)
        : self(owner),
          client(new amqp::connection(log, &owner)),
          url(cfg.url),
          queue_name(cfg.queue),
          vhost(cfg.vhost),
          bindings(cfg.bindings),
          queue_options(cfg.queue_options),
          prefetch(cfg.prefetch),
          arguments(cfg.arguments),
          log(log),
          raw(raw),
          with_route_key(with_route_key) {}

    void on_declared();
    void continue_binding(amqp_bindings remaining);
    void bind_first(const amqp_bindings& remaining);
    // The set-up plan of the next connection consumes unless the owner paused.
    void plan_consuming(bool consume);
    void start_unless_paused();

    rabbit_receiver& self;
    amqp::connection* client = nullptr;  // a child of the receiver
    QString url;
    QString queue_name;
    QString vhost;
    amqp_bindings bindings;
    int32_t queue_options = 2;
    int32_t prefetch = 1;
    QVariantHash arguments;
    QPointer<amqp::queue> queue;  // created for each connection, owned by the client
    amqp::message last_message;
    logger& log;
    bool raw = false;
    bool with_route_key = false;
    bool paused = false;
};

rabbit_receiver::rabbit_receiver(logger& log, const rabbit_receiver_cfg& cfg, QObject* parent, bool raw,
                                 bool with_route_key)
    : QObject(parent), m_impl(std::make_unique<impl>(*this, log, cfg, raw, with_route_key)) {
    auto* client = m_impl->client;
    connect(client, &amqp::connection::disconnected, this, &rabbit_receiver::disconnected,
            Qt::DirectConnection);
    connect(client, &amqp::connection::connected, this, &rabbit_receiver::connected, Qt::DirectConnection);
    // The queue is declared, bound and consumed off the event loop before the link is
    // handed over; the steps below then find them done.
    amqp::link_plan plan;
    plan.queue = amqp::link_plan::queue_setup{m_impl->queue_name,  m_impl->queue_options, m_impl->arguments,
                                              m_impl->bindings,    m_impl->prefetch,      true,
                                              amqp::queue::NoLocal};
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
    log_line(log, Debug) << "rabbit_man_receiver_impl inited to path <<" << mask_url_password(m_impl->url)
                         << ", queue " << m_impl->queue_name << ", host " << m_impl->vhost;
}

rabbit_receiver::~rabbit_receiver() {
    // The connection closes cleanly (unacknowledged deliveries go back to the queue)
    // while the state its signals reach still exists.
    delete m_impl->client;
}

amqp::connection& rabbit_receiver::transport() const {
    return *m_impl->client;
}

void rabbit_receiver::connected() {
    auto& d = *m_impl;
    if (d.queue) {
        QObject::disconnect(d.queue, nullptr, nullptr, nullptr);
        d.queue->deleteLater();
    }
    log_line(d.log, Debug) << "Rabbit_man_ul: connected";
    d.queue = d.client->create_queue(d.queue_name);
    connect(d.queue, &amqp::queue::declared, this, [this] { m_impl->on_declared(); });
    d.queue->declare(d.queue_options, d.arguments);
    log_line(d.log, Debug) << "rabbit_receiver: Connected";
    Q_EMIT conn_estimated();
}

// The bindings go one after another, each after the broker confirmed the one before;
// consumption starts only after the last.
void rabbit_receiver::impl::on_declared() {
    if (!queue) {
        return;
    }
    const amqp_bindings remaining = bindings;
    if (remaining.isEmpty()) {
        log_line(log, Warning) << "Rabbit_man_ul: queue " << queue_name
                               << " has no bindings; consuming it unbound";
        QObject::disconnect(queue, &amqp::queue::bound, nullptr, nullptr);
        start_unless_paused();
        QObject::connect(queue, &amqp::queue::messageReceived, &self, &rabbit_receiver::messageReceived);
        return;
    }
    bind_first(remaining);
}

void rabbit_receiver::impl::bind_first(const amqp_bindings& remaining) {
    QObject::disconnect(queue, &amqp::queue::bound, nullptr, nullptr);
    queue->bind(remaining.first().first, remaining.first().second);
    QObject::connect(queue, &amqp::queue::bound, &self, [this, remaining] { continue_binding(remaining); });
}

void rabbit_receiver::impl::continue_binding(amqp_bindings remaining) {
    if (!queue) {
        return;
    }
    remaining.removeFirst();
    if (remaining.isEmpty()) {
        QObject::disconnect(queue, &amqp::queue::bound, nullptr, nullptr);
        start_unless_paused();
        QObject::connect(queue, &amqp::queue::messageReceived, &self, &rabbit_receiver::messageReceived);
        log_line(log, Debug) << "Rabbit_man_ul: Queue bound";
        return;
    }
    bind_first(remaining);
}

void rabbit_receiver::impl::plan_consuming(bool consume) {
    amqp::link_plan plan = client->plan();
    if (plan.queue) {
        plan.queue->consume = consume;
        client->set_plan(plan);
    }
}

void rabbit_receiver::impl::start_unless_paused() {
    if (paused) {
        log_line(log, Debug) << "Rabbit_man_ul: queue " << queue_name << " bound; consuming stays paused";
        return;
    }
    self.start();
}

void rabbit_receiver::pause_consuming() {
    auto& d = *m_impl;
    if (d.paused) {
        return;
    }
    d.paused = true;
    d.plan_consuming(false);
    if (d.queue && d.queue->is_consuming()) {
        stop();
    }
}

void rabbit_receiver::resume_consuming() {
    auto& d = *m_impl;
    if (!d.paused) {
        return;
    }
    d.paused = false;
    d.plan_consuming(true);
    // Without a queue the next connection consumes from its set-up.
    if (d.queue && d.queue->is_current() && !d.queue->is_consuming()) {
        start();
    }
}

bool rabbit_receiver::paused() const {
    return m_impl->paused;
}

void rabbit_receiver::start() {
    auto& d = *m_impl;
    log_line(d.log, Debug) << "Rabbit consume";
    qDebug() << "consume";
    if (!d.queue) {
        log_line(d.log, Debug) << "void rabbit_receiver::start()"
                               << ": "
                               << "zero queue";
        return;
    }
    // Acknowledgement is always manual.
    if (d.queue->qos(d.prefetch, 0)) {
        d.queue->consume(amqp::queue::NoLocal);
    }
}

void rabbit_receiver::stop() {
    auto& d = *m_impl;
    log_line(d.log, Debug) << "Rabbit cancel";
    qDebug() << "cancel";
    if (!d.queue) {
        log_line(d.log, Debug) << "void rabbit_receiver::stop()"
                               << ": "
                               << " zero queue";
        return;
    }
    d.queue->cancel();
}

int rabbit_receiver::prefetch() const {
    return m_impl->prefetch;
}

bool rabbit_receiver::redelivered(uint64_t delivery_tag) const {
    const amqp::message& last = m_impl->last_message;
    return last.delivery_tag == delivery_tag && last.redelivered;
}

QString rabbit_receiver::user_id(uint64_t delivery_tag) const {
    const amqp::message& last = m_impl->last_message;
    return last.delivery_tag == delivery_tag ? last.user_id : QString();
}

void rabbit_receiver::flush_settlements() {
    m_impl->client->flush_writes();
}

void rabbit_receiver::messageReceived() {
    auto& d = *m_impl;
    if (!d.queue || d.queue->isEmpty()) {
        log_line(d.log, Debug) << "void rabbit_receiver::messageReceived()"
                               << ": "
                               << "zero or empty queue";
        return;
    }
    d.last_message = d.queue->dequeue();
    const amqp::message& msg = d.last_message;
    if (d.with_route_key) {
        Q_EMIT raw_routekey_data_received(msg.payload, msg.routing_key, msg.delivery_tag);
    } else if (d.raw) {
        Q_EMIT raw_data_received(msg.payload, msg.delivery_tag);
    } else {
        // Not JSON, or not an object at the top: an empty object.
        Q_EMIT data_received(model::object_of_body(msg.payload), msg.delivery_tag);
    }
}

void rabbit_receiver::ack_message(uint64_t delivery_tag, bool multiple) {
    auto& d = *m_impl;
    if (!d.queue) {
        log_line(d.log, Debug) << "void rabbit_receiver::ack_message(uint64_t, bool)"
                               << ": "
                               << "zero queue";
        return;
    }
    d.queue->ack(delivery_tag, multiple);
}

void rabbit_receiver::reject_message(uint64_t delivery_tag) {
    auto& d = *m_impl;
    if (!d.queue) {
        log_line(d.log, Debug) << "void rabbit_receiver::reject_message(uint64_t)"
                               << ": "
                               << "zero queue";
        return;
    }
    d.queue->reject(delivery_tag, false);
}

void rabbit_receiver::requeue_message(uint64_t delivery_tag) {
    auto& d = *m_impl;
    if (!d.queue) {
        log_line(d.log, Debug) << "void rabbit_receiver::requeue_message(uint64_t)"
                               << ": "
                               << "zero queue";
        return;
    }
    d.queue->reject(delivery_tag, true);
}

void rabbit_receiver::disconnected() {
    log_line(m_impl->log, Error) << "Rabbit_man_ul: Disconnected";
}
