#pragma once

#include <QJsonObject>
#include <QString>
#include <cstdint>
#include <functional>
#include <memory>

#include "amqp/rabbit_publisher.h"
#include "app/logger.h"
#include "bench/broker.h"
#include "bench/client_drain.h"
#include "bench/uplink_feed.h"

namespace bench {

// Publishes uplinks to the network server's exchange as the network server would.
class uplink_sender {
public:
    uplink_sender(logger& log, const broker& target);
    bool wait_ready(int timeout_ms = 15000);
    void send(const QJsonObject& uplink, const QString& routing_key);
    void send_raw(const QByteArray& body, const QString& routing_key);

private:
    std::unique_ptr<rabbit_publisher_impl> m_publisher;
};

// Publishes `count` uplinks of the feed under the given uplink route key, then a marker
// that the drain receives once the broker has routed everything before it; returns
// when the marker is back (false with `error` set when it does not come back).
bool preload(uplink_sender& sender, client_drain& drain, const QString& marker_key, uplink_feed& feed,
             uint64_t count, const QString& route_key, QString& error);
// The same with each uplink's routing key chosen by `key_of`.
bool preload(uplink_sender& sender, client_drain& drain, const QString& marker_key, uplink_feed& feed,
             uint64_t count, const std::function<QString(const QJsonObject&)>& key_of, QString& error);

}  // namespace bench
