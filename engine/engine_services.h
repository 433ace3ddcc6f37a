#pragma once

#include <QJsonObject>
#include <QString>

#include <stdexcept>

#include "model/records.h"

// The driver could not build a downlink for one modem (an unknown command, a bad
// argument): nothing was stored or sent for it, and other modems are not concerned.
class downlink_refused : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// What the engine offers to command handlers: downlink sending, publication to the
// clients of a modem, and commands to the network server.
class IEngineServices {
public:
    virtual ~IEngineServices() = default;
    // Driver-built downlink sending for a command ("send_dl_msg"): counted as
    // asked by the API. Returns {"ok": true, "bd_id": ...}; throws downlink_refused when
    // the driver cannot encode the message.
    virtual QJsonObject sendDlmessage(const model::dl_message& message) = 0;
    // Publishes one record to one client. `stored` supplies the hardware type of the key.
    virtual void publish_record(const model::ul_message& stored, const model::eav_record& record,
                                const QString& client, int index, bool wrap) = 0;
    virtual void publish_roll(const model::ul_message& message, const QString& client, int index,
                              bool wrap) = 0;
    // Sends a command to another component without waiting for its answer.
    virtual void send_command(const QString& type, const QJsonObject& data, const QString& routing_key) = 0;
};
