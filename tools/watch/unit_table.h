#pragma once

#include <QHash>
#include <QJsonObject>
#include <QString>

namespace watch {

// Units of the values by name (obis_code), from the driver's device parameter description
// that "get_metadata" answers: every entry with a "name" and a non-empty "unit".
class unit_table {
public:
    unit_table() = default;
    explicit unit_table(const QJsonObject& metadata);

    // The unit of a value's obis_code, or an empty text.
    QString unit_of(const QString& obis_code) const { return m_units.value(obis_code); }
    bool empty() const { return m_units.isEmpty(); }
    int size() const { return m_units.size(); }

private:
    QHash<QString, QString> m_units;
};

}  // namespace watch
