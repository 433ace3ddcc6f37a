#pragma once

#include <QJsonObject>
#include <QObject>
#include <QString>

#include "tools/cli/exchange_link.h"

namespace cli {

// One command sent in the service's envelope and its response: "sender" names the
// link's reply key, and the response is the "response" whose "cmd_id" is the request's.
class command_call : public QObject {
    Q_OBJECT
public:
    command_call(tool::exchange_link& link, const QString& reply_key, QObject* parent = nullptr);
    Q_DISABLE_COPY(command_call)

    // The envelope that send() publishes.
    const QJsonObject& envelope() const { return m_envelope; }
    void prepare(const QString& command, const QJsonObject& body);

    // Publishes the envelope to the routing key and runs the event loop until the response
    // or the time-out; true with the response's whole envelope.
    bool send(const QString& routing_key, int timeout_ms, QJsonObject* response);

Q_SIGNALS:
    void answered();

private:
    void on_received(const QByteArray& payload, const QString& routing_key);

    tool::exchange_link& m_link;
    QString m_reply_key;
    QJsonObject m_envelope;
    QString m_cmd_id;
    QJsonObject m_response;
    bool m_answered = false;
};

}  // namespace cli
