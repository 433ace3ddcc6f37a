#pragma once

#include "cursor.h"
#include "mbus_types.h"

namespace mbus {

constexpr uint8_t ci_no_header = 0x78;
constexpr uint8_t ci_short_header = 0x7a;
constexpr uint8_t ci_long_header = 0x72;

// Reads the CI field and the header it announces; leaves the cursor on the first record.
app_header read_header(cursor& in);

// Manufacturer code (2 bytes, little-endian) as its three letters: 5 bits per letter,
// 'A' = 1.
QString manufacturer_letters(int code);

}  // namespace mbus
