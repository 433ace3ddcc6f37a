#pragma once

#include <QByteArray>
#include <QDateTime>
#include <QString>
#include <cstdint>

#include "model/records.h"

// What every stored uplink, application message or heartbeat, takes from its delivery.
namespace model {

// Identifier of a stored uplink: MD5 over the payload followed by modem id, iterator and
// the low 32 bits of time_detected in seconds, each 4 bytes little-endian; the 16 digest
// bytes read as two big-endian signed 64-bit numbers, exclusive-or'ed.
int64_t uplink_unique_id(const QByteArray& payload, int32_t modem_id, int32_t iterator,
                         const QDateTime& time_detected);
// unique_id as values and events refer to it: unsigned, lower-case hex, no leading zeros.
QString uplink_message_id(int64_t unique_id);

// Copies what the stored record takes from the incoming uplink as it is: hw_type,
// protocol, station_id, phy, snr, rssi, payload, iterator, tz_mismatch, time_detected,
// the DL radio mode, the last DL station's two busyness figures and bs_timezone_offset
// (from "bs_tz"). The modem id is the driver's to set.
void copy_uplink_fields(const ul_app_message& in, ul_message& out);

}  // namespace model
