#pragma once

#include "cursor.h"
#include "mbus_types.h"

namespace mbus {

constexpr uint8_t ci_no_header = 0x78;
constexpr uint8_t ci_short_header = 0x7a;
constexpr uint8_t ci_long_header = 0x72;
constexpr uint8_t ci_afl = 0x90;  // authentication and fragmentation layer before the header

// Reads the CI field and the header it announces (after an AFL, when one comes first);
// leaves the cursor on the first record, or on the encrypted data.
app_header read_header(cursor& in);

// Manufacturer code (2 bytes, little-endian) as its three letters: 5 bits per letter,
// 'A' = 1.
QString manufacturer_letters(int code);

}  // namespace mbus
