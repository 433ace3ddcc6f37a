#include "tools/watch/unit_table.h"

namespace watch {

unit_table::unit_table(const QJsonObject& metadata) {
    for (auto it = metadata.begin(); it != metadata.end(); ++it) {
        const QJsonObject parameter = it.value().toObject();
        const QString name = parameter.value("name").toString();
        const QString unit = parameter.value("unit").toString();
        if (!name.isEmpty() && !unit.isEmpty()) {
            m_units.insert(name, unit);
        }
    }
}

}  // namespace watch
