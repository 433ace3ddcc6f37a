#pragma once

#include <QJsonObject>
#include <map>

#include "model/queries.h"

namespace db_common {

// The device registry a database plugin starts with, read from the optional "devices"
// object of its JSON configuration:
//   {"devices": {"77": {"protocol": "proto7", "hw_type": "X", "clients": ["c1", "c2"]}}}
// Keys are modem ids in decimal. An entry whose key is not a number or whose value is
// not an object is skipped with a warning; missing members read as empty. A meter's
// "aes_key", "manufacturer", "identification", "version" or "medium" that is malformed
// throws std::runtime_error naming the modem and the field (never the key's text).
std::map<int, model::device_record> device_seed(const QJsonObject& configuration);

// One registry entry from its JSON object form (the value under a modem id above);
// throws std::invalid_argument for a malformed meter field.
model::device_record device_record_from_json(const QJsonObject& entry);

}  // namespace db_common
