#pragma once

#include "cursor.h"
#include "mbus_types.h"

namespace mbus {

// The value information block: VIF, extension table byte or, for the plain-text VIF,
// the length byte and unit text, then the VIFE chain.
struct value_block {
    QByteArray bytes;
    value_info info;
};

// Throws decode_error only when the block is truncated; a code without a supported
// meaning or a chain of more than 10 VIFEs is marked in info.unsupported.
value_block read_vib(cursor& in);

}  // namespace mbus
