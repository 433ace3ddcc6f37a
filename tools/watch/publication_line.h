#pragma once

#include <QByteArray>
#include <QDateTime>
#include <QString>

#include "tools/watch/unit_table.h"

namespace watch {

// One readable line for a client publication, plain or wrapped in {"msg_type", "cmd_id",
// "data"}: arrival time, routing key, modem, and
//   for a value:  obis_code = value [unit] (the record's own "unit", else the table's)
//   for an event: event <event_code>: <message>
//   for a roll:   roll tag <tag>, parse_status <parse_status>
QString describe(const QByteArray& body, const QString& routing_key, const QDateTime& arrival,
                 const unit_table& units = unit_table());

}  // namespace watch
