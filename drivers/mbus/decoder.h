#pragma once

#include <QByteArray>

#include "mbus_types.h"

namespace mbus {

// Decodes one application-layer payload: CI field, header and data records. Never
// throws and never reads past the end: a fault ends decoding with the status
// "error: <what>, at byte <offset>", keeping the records decoded before it.
decode_result decode(const QByteArray& payload);

// The raw number of a data field in the record's base unit: 10^exponent x factor + offset.
double scale(double raw, const value_info& info);

}  // namespace mbus
