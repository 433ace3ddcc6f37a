#include "commands/device_filters.h"

namespace device_filters {

namespace {
const QString any = QStringLiteral("*");
}  // namespace

bool hw_type_passes(const driver_acceptance& driver, const QString& hw_type) {
    return hw_type == any || driver.accepts_hw_type(hw_type);
}

bool protocol_passes(const driver_acceptance& driver, const QString& protocol) {
    return protocol == any || driver.accepts_protocol(protocol);
}

}  // namespace device_filters
