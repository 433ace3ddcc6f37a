#pragma once

#include <QByteArray>
#include <QJsonObject>
#include <QString>
#include <memory>

#include "interfaces/IDeviceClientsDatabase.h"
#include "interfaces/IDriver.h"
#include "interfaces/IMessagesDatabase.h"
#include "model/records.h"

class rabbit_api_man;

// Handing downlinks to the network server.
namespace dl_sending {

inline const char* const netcore_route = "cmd.in.netcore";

// The payload text of driver-built bytes: the part between the "start_placeholder" and
// "stop_placeholder" markers is taken verbatim, the rest as upper-case hex.
QString splice_placeholders(QByteArray bytes);

// Stores the message and sends the "dl" command; returns {"ok": true, "bd_id": db_id}.
QJsonObject send_raw(const model::dl_message& message, interfaces::IMessagesDatabase& messages,
                     rabbit_api_man& api, const QString& payload_override);

// Has the driver build the payload for the modem's device, then sends it as raw.
QJsonObject send_driver_built(model::dl_message message, interfaces::IDriver& driver,
                              interfaces::IMessagesDatabase& messages,
                              interfaces::IDeviceClientsDatabase& clients, rabbit_api_man& api,
                              uint32_t ttl_seconds);

}  // namespace dl_sending
