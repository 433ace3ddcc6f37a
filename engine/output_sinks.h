#pragma once

#include <QByteArray>
#include <QJsonObject>
#include <QString>
#include <cstdint>

// Where the engine's outward messages go: publications to the client applications,
// commands to other components (the network server) and the settlement of the
// deliveries it was handed. The broker's endpoints implement them in production
// (engine/amqp_endpoints.h); tests put recording fakes in their place.

class publication_sink {
public:
    virtual ~publication_sink() = default;
    // One message to the clients' exchange, with its MIME type.
    virtual void publish(const QByteArray& body, const QString& routing_key, const QString& mime_type) = 0;
    // Sends publications that were gathered, now.
    virtual void flush_publications() {}
};

class command_sender {
public:
    virtual ~command_sender() = default;
    // A command whose answer is not awaited; `sharded` 0 leaves the key out.
    virtual void send_command(const QString& type, const QJsonObject& data, const QString& routing_key,
                              int sharded) = 0;
    // The key that identifies this service to the network server.
    virtual QString api_key() const = 0;
    // Sends commands that were gathered, now.
    virtual void flush_commands() {}
};

// The queue the engine's deliveries come from: how each ends, and the pace of consuming.
class delivery_settler {
public:
    virtual ~delivery_settler() = default;
    virtual void ack_message(uint64_t tag) = 0;
    // Rejected for good: not delivered again.
    virtual void reject_message(uint64_t tag) = 0;
    // Back to the queue, to be delivered again.
    virtual void requeue_message(uint64_t tag) = 0;
    // Whether the broker said it delivered this one before.
    virtual bool redelivered(uint64_t tag) const = 0;
    // How many deliveries may be unsettled at once.
    virtual int prefetch() const = 0;
    // Sends settlements that were gathered, now.
    virtual void flush_settlements() = 0;
    virtual void pause_consuming() = 0;
    virtual void resume_consuming() = 0;
};

// The three outputs of one engine; none is owned here.
struct engine_outputs {
    publication_sink* publications = nullptr;
    command_sender* commands = nullptr;
    delivery_settler* deliveries = nullptr;
};
