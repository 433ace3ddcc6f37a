#include "engine/outbox.h"

#include "metrics/metrics.h"

void outbox::publish(const QByteArray& body, const QString& routing_key, const QString& mime_type) {
    send_or_hold(
        [this, body, routing_key, mime_type] { m_publications.publish(body, routing_key, mime_type); });
}

void outbox::send_command(const QString& type, const QJsonObject& data, const QString& routing_key,
                          int sharded) {
    send_counted(type, data, routing_key, sharded, nullptr);
}

void outbox::send_counted(const QString& type, const QJsonObject& data, const QString& routing_key,
                          int sharded, metrics::counter* sent) {
    send_or_hold([this, type, data, routing_key, sharded, sent] {
        m_commands.send_command(type, data, routing_key, sharded);
        if (sent) {
            sent->inc();
        }
    });
}

QString outbox::api_key() const {
    return m_commands.api_key();
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
