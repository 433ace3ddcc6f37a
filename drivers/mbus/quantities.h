#pragma once

#include <QString>
#include <vector>

#include "model/device_description.h"

namespace mbus {

// One quantity the VIF tables can name: the base of an obis_code, its unit after
// scaling, and the plausible range published in the device description.
struct quantity_entry {
    const char* name;
    const char* unit;
    const char* comment;
    double min_value;
    double max_value;
    bool primary;   // a main reading of a meter
    bool is_value;  // false: decoded into the message data only (dates)
    // No longer produced (its quantity goes by another name now), but its parameter number
    // stays taken, so that the numbers clients know keep their meaning.
    bool retired = false;
};

const std::vector<quantity_entry>& quantity_table();
const quantity_entry* find_quantity(const QString& name);

struct event_entry {
    int code;
    const char* name;
    const char* comment;
};

const std::vector<event_entry>& event_table();

// Parameters (one per quantity that becomes a value), events and controls, numbered
// from 1 in table order. The same for every hardware type the driver serves.
model::device_description device_description();

}  // namespace mbus
