#include "engine/outbox.h"

#include <QJsonDocument>

#include "amqp/rabbit_api_man.h"
#include "amqp/rabbit_publisher.h"
#include "metrics/metrics.h"

namespace {
const QString mime_type = QStringLiteral("text/plain");
}  // namespace

void outbox::publish(const QByteArray& body, const QString& routing_key) {
    send_or_hold(
        [this, body, key = routing_key.toLatin1()] { m_publisher.publish_string(body, key, mime_type); });
}

void outbox::send_command(const QString& type, const QJsonObject& data, const QString& routing_key,
                          int sharded) {
    send_counted(type, data, routing_key, sharded, nullptr);
}

void outbox::send_counted(const QString& type, const QJsonObject& data, const QString& routing_key,
                          int sharded, metrics::counter* sent) {
    // The outcome of a downlink arrives later as a report of its own: nothing waits here.
    send_or_hold([this, type, data, routing_key, sharded, sent] {
        m_api.send_cmd(
            type, data, routing_key, [](const QJsonDocument&) { return true; }, [](const QString&) {},
            sharded);
        if (sent) {
            sent->inc();
        }
    });
}

QString outbox::api_key() const {
    return m_api.config().api_key;
}

void outbox::send_or_hold(std::function<void()> send) {
    if (m_holding) {
        m_held.push_back(std::move(send));
    } else {
        send();
    }
}

void outbox::drop_from(std::size_t mark) {
    if (mark < m_held.size()) {
        m_held.resize(mark);
    }
}

void outbox::release() {
    m_holding = false;
    // A send may wait for its link and let the event loop run: take the list first.
    std::vector<std::function<void()>> held;
    held.swap(m_held);
    for (const auto& send : held) {
        send();
    }
}

std::vector<std::function<void()>> outbox::take() {
    m_holding = false;
    std::vector<std::function<void()>> held;
    held.swap(m_held);
    return held;
}

void outbox::drop() {
    m_holding = false;
    m_held.clear();
}
