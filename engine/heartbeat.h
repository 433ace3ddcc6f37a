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

// MD5 over the payload followed by modem id, iterator and the low 32 bits of
// time_detected (each 4 bytes little-endian); the digest read as two big-endian signed
// 64-bit numbers, exclusive-or'ed.
int64_t unique_id(const QByteArray& payload, int32_t modem_id, int32_t iterator,
                  const QDateTime& time_detected);

model::ul_message stored_message(const model::ul_hb_message& hb);
// One value per member of the message's data, in key order ("temp", then "voltage").
QList<model::dev_value> values(const model::ul_message& stored);

}  // namespace heartbeat
