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
// The same name as plain ASCII text.
const char* coding_text(int coding);

}  // namespace mbus
