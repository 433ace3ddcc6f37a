#pragma once

#include "cursor.h"
#include "mbus_types.h"

namespace mbus {

// Data field codings (DIF bits 3-0).
enum coding : int {
    no_data = 0x0,
    int8 = 0x1,
    int16 = 0x2,
    int24 = 0x3,
    int32 = 0x4,
    real32 = 0x5,
    int48 = 0x6,
    int64 = 0x7,
    selection = 0x8,
    bcd2 = 0x9,
    bcd4 = 0xa,
    bcd6 = 0xb,
    bcd8 = 0xc,
    variable = 0xd,
    bcd12 = 0xe,
    special = 0xf,
};

constexpr int max_extensions = 10;

// The data information block: DIF plus DIFE chain.
struct data_info {
    QByteArray bytes;
    int coding = 0;
    function_field function = function_field::instantaneous;
    uint64_t storage = 0;
    uint32_t tariff = 0;
    uint32_t subunit = 0;
    // "more than 10 DIFEs, at byte n": the chain was read to its end, the record is skipped.
    QString problem;
};

// Reads DIF and DIFEs. The caller has already dealt with the special DIFs (coding 0xf).
// Throws decode_error only when the chain is truncated.
data_info read_dib(cursor& in);

}  // namespace mbus
