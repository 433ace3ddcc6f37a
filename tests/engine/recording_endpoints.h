#pragma once

#include <QEventLoop>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTimer>
#include <algorithm>
#include <functional>
#include <vector>

#include "engine/output_sinks.h"

// The engine's outputs, recorded instead of sent: no broker, no socket.

class recording_receiver : public delivery_settler {
public:
    std::vector<uint64_t> m_acked;
    std::vector<uint64_t> m_rejected;
    std::vector<uint64_t> m_requeued;
    std::vector<uint64_t> m_delivered_before;  // tags that redelivered() reports
    std::function<void(uint64_t)> m_on_ack;
    int m_prefetch = 10;
    int m_pauses = 0;
    int m_resumes = 0;
    int m_flushes = 0;

    void ack_message(uint64_t tag) override {
        if (m_on_ack) {
            m_on_ack(tag);
        }
        m_acked.push_back(tag);
    }
    void reject_message(uint64_t tag) override { m_rejected.push_back(tag); }
    void requeue_message(uint64_t tag) override { m_requeued.push_back(tag); }
    bool redelivered(uint64_t tag) const override {
        return std::find(m_delivered_before.begin(), m_delivered_before.end(), tag) !=
               m_delivered_before.end();
    }
    int prefetch() const override { return m_prefetch; }
    void flush_settlements() override { ++m_flushes; }
    void pause_consuming() override {
        ++m_pauses;
        m_paused = true;
    }
    void resume_consuming() override {
        ++m_resumes;
        m_paused = false;
    }
    bool paused() const { return m_paused; }

private:
    bool m_paused = false;
};

struct publication_record {
    QString route;
    QJsonObject body;
    QString mime;
};

class recording_publisher : public publication_sink {
public:
    std::vector<publication_record> m_published;
    // Waits a second for a link that never comes, serving other events meanwhile, as the
    // client publisher does while its broker is away.
    bool m_waits_for_link = false;
    std::function<void()> m_on_publish;
    // Publications recorded at each flush.
    std::vector<std::size_t> m_flushed_at;

    void publish(const QByteArray& body, const QString& routing_key, const QString& mime_type) override {
        if (m_on_publish) {
            m_on_publish();
        }
        if (m_waits_for_link) {
            QEventLoop wait;
            QTimer::singleShot(1000, &wait, &QEventLoop::quit);
            wait.exec();
        }
        m_published.push_back({routing_key, QJsonDocument::fromJson(body).object(), mime_type});
    }
    void flush_publications() override { m_flushed_at.push_back(m_published.size()); }
};

struct command_record {
    QString type;
    QJsonObject data;
    QString route;
    int sharded = 0;
};

class recording_api : public command_sender {
public:
    std::vector<command_record> m_sent;
    std::function<void(const command_record&)> m_on_send;
    QString m_api_key = "key1";

    void send_command(const QString& type, const QJsonObject& data, const QString& routing_key,
                      int sharded) override {
        m_sent.push_back({type, data, routing_key, sharded});
        if (m_on_send) {
            m_on_send(m_sent.back());
        }
    }
    QString api_key() const override { return m_api_key; }
};
