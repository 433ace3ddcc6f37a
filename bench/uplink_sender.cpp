#include "bench/uplink_sender.h"

#include <algorithm>

#include <QCoreApplication>
#include <QJsonDocument>

#include "bench/wait.h"

namespace bench {

uplink_sender::uplink_sender(logger& log, const broker& target) {
    rabbit_publisher_config cfg;
    cfg.url = target.url;
    cfg.vhost = target.vhost;
    m_publisher = std::make_unique<rabbit_publisher_impl>(log, cfg);
}

bool uplink_sender::wait_ready(int timeout_ms) {
    return wait_until([this] { return m_publisher->is_connected(); }, timeout_ms);
}

void uplink_sender::send(const QJsonObject& uplink, const QString& routing_key) {
    send_raw(QJsonDocument(uplink).toJson(QJsonDocument::Compact), routing_key);
}

void uplink_sender::send_raw(const QByteArray& body, const QString& routing_key) {
    m_publisher->publish_string(body, routing_key.toLatin1(), "text/plain");
}

bool preload(uplink_sender& sender, client_drain& drain, const QString& marker_key, uplink_feed& feed,
             uint64_t count, const QString& route_key, QString& error) {
    return preload(
        sender, drain, marker_key, feed, count,
        [&route_key](const QJsonObject& uplink) { return uplink_feed::routing_key(uplink, route_key); },
        error);
}

bool preload(uplink_sender& sender, client_drain& drain, const QString& marker_key, uplink_feed& feed,
             uint64_t count, const std::function<QString(const QJsonObject&)>& key_of, QString& error) {
    if (!sender.wait_ready()) {
        error = "the uplink publisher did not connect";
        return false;
    }
    for (uint64_t i = 0; i < count; ++i) {
        const QJsonObject uplink = feed.next();
        sender.send(uplink, key_of(uplink));
        // A long preload must let the event loop run now and then: the process's other
        // broker connections (the drain's) would miss their heartbeats and be closed.
        if (i % 2000 == 1999) {
            QCoreApplication::processEvents();
        }
    }
    bool marked = false;
    drain.on_message([&marked, marker_key](const amqp::message& msg, int64_t) {
        marked = marked || msg.routing_key == marker_key;
    });
    sender.send_raw("{}", marker_key);
    // The broker takes in a large preload at some 10,000 uplinks a second; the marker
    // comes back after the last of them.
    const int timeout_ms = int(std::min<uint64_t>(3600000, 120000 + count / 2));
    const bool done = wait_until([&marked] { return marked; }, timeout_ms);
    drain.on_message({});
    if (!done) {
        error = "the preload marker did not come back";
        return false;
    }
    // The queue process may still be taking in the tail of the burst.
    pause_ms(300);
    return true;
}

}  // namespace bench
