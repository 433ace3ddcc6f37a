#pragma once

#include <QByteArray>
#include <QDateTime>
#include <QJsonObject>
#include <QString>

#include "mbus_types.h"

namespace mbus {

// The stored message's "data": header fields and every decoded record, so that a
// client reading the roll sees what was decoded.
QJsonObject message_data(const decode_result& decoded);
QJsonObject record_json(const record& r);
// message_data as compact JSON text, byte for byte what Qt writes for it, written directly.
QByteArray message_data_text(const decode_result& decoded);
QString coding_name(int coding);

// Identifier of a stored uplink: MD5 over the payload followed by modem id, iterator and
// the low 32 bits of time_detected (seconds), each 4 bytes little-endian; the digest read
// as two big-endian 64-bit numbers, exclusive-or'ed.
int64_t unique_id(const QByteArray& payload, int32_t modem_id, int32_t iterator,
                  const QDateTime& time_detected);
// unique_id as values and events refer to it: unsigned, lower-case hex.
QString message_id(int64_t unique_id);

}  // namespace mbus
