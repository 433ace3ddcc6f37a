#pragma once

#include <cstdint>

#include "mbus_types.h"

namespace mbus {

// Lookups in the VIF tables of EN 13757-3. Each takes the code without its extension
// bit, fills out and answers false when the code has no entry the driver supports.

// Primary table (except 0x7b-0x7f, which the VIB reader handles itself).
bool primary_vif(uint8_t code, value_info& out);
// First extension table, announced by VIF 0xfd.
bool fd_vif(uint8_t code, value_info& out);
// Second extension table, announced by VIF 0xfb.
bool fb_vif(uint8_t code, value_info& out);
// Combinable (orthogonal) VIFE: modifies what the VIF said.
bool combinable_vife(uint8_t code, value_info& info);

}  // namespace mbus
