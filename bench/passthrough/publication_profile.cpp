#include "bench/passthrough/publication_profile.h"

#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

namespace passthrough {

double publication_profile::messages_per_uplink() const {
    if (m_uplinks.empty()) {
        return 0.0;
    }
    size_t messages = 0;
    for (const auto& uplink : m_uplinks) {
        messages += uplink.size();
    }
    return double(messages) / double(m_uplinks.size());
}

double publication_profile::bytes_per_uplink() const {
    if (m_uplinks.empty()) {
        return 0.0;
    }
    double bytes = 0;
    for (const auto& uplink : m_uplinks) {
        for (const auto& message : uplink) {
            bytes += message.size;
        }
    }
    return bytes / double(m_uplinks.size());
}

QByteArray publication_profile::to_json() const {
    QJsonArray uplinks;
    for (const auto& uplink : m_uplinks) {
        QJsonArray messages;
        for (const auto& message : uplink) {
            messages.append(QJsonObject{{"key", message.key_stem}, {"size", message.size}});
        }
        uplinks.append(messages);
    }
    return QJsonDocument(QJsonObject{{"uplinks", uplinks}}).toJson(QJsonDocument::Compact);
}

publication_profile publication_profile::from_json(const QByteArray& text) {
    publication_profile profile;
    const QJsonArray uplinks = QJsonDocument::fromJson(text).object().value("uplinks").toArray();
    for (const QJsonValue& uplink : uplinks) {
        uplink_publication messages;
        for (const QJsonValue& message : uplink.toArray()) {
            const QJsonObject entry = message.toObject();
            messages.push_back({entry.value("key").toString(), entry.value("size").toInt()});
        }
        profile.add(std::move(messages));
    }
    return profile;
}

bool publication_profile::save(const QString& path) const {
    QFile file(path);
    return file.open(QIODevice::WriteOnly | QIODevice::Truncate) && file.write(to_json()) >= 0;
}

publication_profile publication_profile::load(const QString& path) {
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? from_json(file.readAll()) : publication_profile();
}

QString publication_profile::stem_of(const QString& routing_key) {
    const int dot = routing_key.lastIndexOf('.');
    return dot < 0 ? routing_key : routing_key.left(dot);
}

}  // namespace passthrough
