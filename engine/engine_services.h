#pragma once

#include <QJsonObject>
#include <QString>

#include "model/records.h"

// What the engine offers to command handlers: downlink sending, publication to the
// clients of a modem, and commands to the network server.
class IEngineServices {
public:
    virtual ~IEngineServices() = default;
    // Driver-built downlink sending; returns {"ok": true, "bd_id": ...}.
    virtual QJsonObject send_downlink(const model::dl_message& message) = 0;
    // Publishes one record to one client. `stored` supplies the hardware type of the key.
    virtual void publish_record(const model::ul_message& stored, const model::eav_record& record,
                                const QString& client, int index, bool wrap) = 0;
    virtual void publish_roll(const model::ul_message& message, const QString& client, int index,
                              bool wrap) = 0;
    // Sends a command to another component without waiting for its answer.
    virtual void send_command(const QString& type, const QJsonObject& data, const QString& routing_key) = 0;
};
