// Settings and calibrations of the M-Bus driver. The meters' readings are read-only;
// what clients write is kept per modem in the driver state, under "settings" (name to
// JSON value) and "calib" (group to name to number), and read back from there.
#include <QJsonArray>
#include <stdexcept>

#include "mbus_driver.h"

namespace {

const QString settings_key = "settings";
const QString calib_key = "calib";

QJsonValue setting_json(const model::setting_item& item) {
    if (item.document.isObject()) {
        return item.document.object();
    }
    if (item.document.isArray()) {
        return item.document.array();
    }
    return QJsonValue::fromVariant(item.value);
}

}  // namespace

interfaces::IDriverState& MbusDriver::state() const {
    if (!m_state) {
        throw std::runtime_error("mbus driver: no driver state store");
    }
    return *m_state;
}

void MbusDriver::write_settings(const std::map<int, QList<model::setting_item>>& settings) {
    for (const auto& [modem, items] : settings) {
        state().begin(modem);
        QJsonObject stored = state().get(modem, settings_key).toObject();
        for (const model::setting_item& item : items) {
            stored[item.name] = setting_json(item);
        }
        state().set(modem, settings_key, QJsonValue(stored));
        state().end(modem, 0);
    }
}

void MbusDriver::read_settings(QList<model::setting_result>& out, const QList<int>& modems,
                               const QStringList& names) {
    for (int modem : modems) {
        const QJsonObject stored = state().get(modem, settings_key).toObject();
        if (names.isEmpty()) {
            out << model::setting_result{modem, QString(), stored.toVariantMap()};
            continue;
        }
        for (const QString& name : names) {
            out << model::setting_result{modem, name, stored.value(name).toVariant()};  // null when unknown
        }
    }
}

void MbusDriver::write_calibs(const std::map<int, QList<model::calib_item>>& calibs) {
    for (const auto& [modem, items] : calibs) {
        state().begin(modem);
        QJsonObject stored = state().get(modem, calib_key).toObject();
        for (const model::calib_item& item : items) {
            QJsonObject group = stored.value(item.group).toObject();
            group[item.name] = item.value;
            stored[item.group] = group;
        }
        state().set(modem, calib_key, QJsonValue(stored));
        state().end(modem, 0);
    }
}

void MbusDriver::read_calibs(QList<model::calib_result>& out, const QList<int>& modems,
                             const QStringList& names) {
    for (int modem : modems) {
        const QJsonObject stored = state().get(modem, calib_key).toObject();
        const QStringList groups = names.isEmpty() ? stored.keys() : names;
        for (const QString& group : groups) {
            const QJsonObject values = stored.value(group).toObject();
            for (auto it = values.begin(); it != values.end(); ++it) {
                out << model::calib_result{modem, group, it.key(), it.value().toDouble()};
            }
        }
    }
}
