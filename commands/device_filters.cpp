#include "commands/device_filters.h"

#include <QRegExp>

namespace device_filters {

bool hw_type_passes(const interfaces::IDriver& driver, const QString& hw_type) {
    if (hw_type == "*") {
        return true;
    }
    QRegExp pattern(driver.hw_pattern(), Qt::CaseInsensitive, QRegExp::RegExp);
    return pattern.exactMatch(hw_type);
}

bool protocol_passes(const interfaces::IDriver& driver, const QString& protocol) {
    return protocol == "*" || protocol == driver.type_name();
}

}  // namespace device_filters
