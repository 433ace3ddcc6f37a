#pragma once

#include <QJsonValue>

#include "interfaces/IDriverState.h"

namespace db_common {

// The JSON value a driver-state entry is stored as. JSON text is stored parsed when it is
// valid JSON (any value: object, array, number, string, true/false/null), otherwise as
// a string holding the text; a QJsonValue is stored as it is.
QJsonValue state_value_json(const interfaces::state_value& value);

}  // namespace db_common
