#pragma once

#include <QByteArray>

#include "mbus_types.h"
#include "model/meter_link.h"

namespace mbus {

// Decodes one application-layer payload: CI field, header and data records. Never
// throws and never reads past the end: a fault ends decoding with the status
// "error: <what>, at byte <offset>", keeping the records decoded before it. An encrypted
// payload is decrypted with the meter's registry entry (key and, for a short header, the
// address): "encrypted" when it cannot be tried, "decryption failed" when the result does
// not verify; either keeps no records and says why in `security_problem`.
decode_result decode(const QByteArray& payload, const model::meter_link& meter = model::meter_link());

// True when the payload is encrypted with a security mode the driver decrypts (5 or 7):
// only then does decoding need the meter's registry entry.
bool needs_meter_link(const QByteArray& payload);

// The raw number of a data field in the record's base unit: 10^exponent x factor + offset.
double scale(double raw, const value_info& info);

}  // namespace mbus
