#pragma once

#include <QByteArray>
#include <QJsonObject>
#include <QString>

// Where the engine's outward messages go: publications to the client applications and
// commands to other components (the network server).
class publication_sink {
public:
    virtual ~publication_sink() = default;
    // One message to the clients' exchange.
    virtual void publish(const QByteArray& body, const QString& routing_key) = 0;
};

class command_sender {
public:
    virtual ~command_sender() = default;
    // A command whose answer is not awaited; `sharded` 0 leaves the key out.
    virtual void send_command(const QString& type, const QJsonObject& data, const QString& routing_key,
                              int sharded) = 0;
    // The key that identifies this service to the network server.
    virtual QString api_key() const = 0;
};
