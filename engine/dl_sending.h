#pragma once

#include <QByteArray>
#include <QJsonObject>
#include <QString>
#include <memory>

#include "engine/output_sinks.h"
#include "interfaces/IDeviceClientsDatabase.h"
#include "interfaces/IDriver.h"
#include "interfaces/IMessagesDatabase.h"
#include "model/records.h"

// Handing downlinks to the network server.
namespace dl_sending {

inline const char* const netcore_route = "cmd.in.netcore";

// The payload text of driver-built bytes: the part between the "start_placeholder" and
// "stop_placeholder" markers is taken verbatim, the rest as upper-case hex.
QString splice_placeholders(QByteArray bytes);

// Stores the message and sends the "dl" command; returns {"ok": true, "bd_id": db_id}.
// The sender must hold the command until the message's record is committed.
QJsonObject send_raw(const model::dl_message& message, interfaces::IMessagesDatabase& messages,
                     command_sender& sender, const QString& payload_override);

// Has the driver build the payload for the modem's device, then sends it as raw.
QJsonObject send_driver_built(model::dl_message message, interfaces::IDriver& driver,
                              interfaces::IMessagesDatabase& messages,
                              interfaces::IDeviceClientsDatabase& clients, command_sender& sender,
                              uint32_t ttl_seconds);

}  // namespace dl_sending
