#pragma once

#include <QByteArray>
#include <QDateTime>
#include <QJsonObject>
#include <QList>
#include <cstdint>

#include "model/records.h"

// The stored form of a heartbeat and its two values.
namespace heartbeat {

inline const char* const tag = "system.heartbeat";
constexpr int64_t message_ttl_seconds = 2592000;  // 30 days, whatever UL_DL_TTL says
constexpr int64_t value_ttl_seconds = 7776000;    // 90 days

// Its unique_id is the one of every stored uplink (model::uplink_unique_id).
model::ul_message stored_message(const model::ul_hb_message& hb);
// One value per member of the message's data, in key order ("temp", then "voltage").
QList<model::dev_value> values(const model::ul_message& stored);

}  // namespace heartbeat
