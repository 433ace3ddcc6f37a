#pragma once

#include <QJsonObject>
#include <QString>

#include "model/device_description.h"
#include "model/records.h"

namespace mbus {

// Tag of a value that a calibration changed.
inline const char* const calibrated_tag = "mbus.calibrated";

// The calibrations of one modem: {group: {"factor": f, "offset": o}}, where a group is a
// value's obis code ("volume.s1") or its quantity ("volume"); the obis code wins.
class calibration {
public:
    explicit calibration(const QJsonObject& groups) : m_groups(groups) {}

    // value * factor + offset for a value with a calibration (factor 1 and offset 0 when
    // absent); such a value gets the tag calibrated_tag.
    void apply(model::dev_value& value) const;

    // Throws std::invalid_argument unless the item is a "factor" or "offset" of a named
    // group with a finite number.
    static void check(const model::calib_item& item);

private:
    QJsonObject m_groups;
};

}  // namespace mbus
