#pragma once

#include <QString>

#include "engine/ownership.h"

// The request filters of "get_ids" and "get_metadata": "*" passes, anything else must
// pass the driver's acceptance rule.
namespace device_filters {

// hw_type is "*" or matches the driver's hardware pattern as a whole, ignoring case.
bool hw_type_passes(const driver_acceptance& driver, const QString& hw_type);
// protocol is "*" or equals the driver's protocol name exactly.
bool protocol_passes(const driver_acceptance& driver, const QString& protocol);

}  // namespace device_filters
