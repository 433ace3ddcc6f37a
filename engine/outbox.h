#pragma once

#include <cstddef>
#include <functional>
#include <vector>

#include "engine/output_sinks.h"

namespace metrics {
class counter;
}

// The outward messages of the handling in progress. While it holds, a publication or a
// command is kept instead of sent: released in order once the writes it speaks of are
// committed, dropped when they are undone. So clients are told only what is stored and
// the network server gets a downlink only after its record exists.
class outbox : public publication_sink, public command_sender {
public:
    outbox(publication_sink& publications, command_sender& commands)
        : m_publications(publications), m_commands(commands) {}
    outbox(const outbox&) = delete;
    outbox& operator=(const outbox&) = delete;

    void publish(const QByteArray& body, const QString& routing_key, const QString& mime_type) override;
    void send_command(const QString& type, const QJsonObject& data, const QString& routing_key,
                      int sharded) override;
    QString api_key() const override;
    // The same, counting the command into `sent` when it actually goes out.
    void send_counted(const QString& type, const QJsonObject& data, const QString& routing_key, int sharded,
                      metrics::counter* sent);

    void hold() { m_holding = true; }
    bool holding() const { return m_holding; }
    // Marks where a unit of work begins, to drop what it sent if it is undone.
    std::size_t mark() const { return m_held.size(); }
    void drop_from(std::size_t mark);
    std::size_t held() const { return m_held.size(); }
    // Sends everything held, in order, and stops holding.
    void release();
    // Hands over everything held, in order, to be sent later, and stops holding.
    std::vector<std::function<void()>> take();
    // Forgets everything held and stops holding.
    void drop();

private:
    void send_or_hold(std::function<void()> send);

    publication_sink& m_publications;
    command_sender& m_commands;
    std::vector<std::function<void()>> m_held;
    bool m_holding = false;
};
