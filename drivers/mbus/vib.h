#pragma once

#include "cursor.h"
#include "mbus_types.h"

namespace mbus {

// The value information block: VIF, extension table byte, VIFE chain and, for the
// plain-text VIF, the unit text that follows the last VIFE.
struct value_block {
    QByteArray bytes;
    value_info info;
};

value_block read_vib(cursor& in);

}  // namespace mbus
