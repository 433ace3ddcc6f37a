// Settings and calibrations of the M-Bus driver, kept per modem in the driver state:
// "settings" (name to JSON value), "settings_pending" (name to {"value", "db_id"}: sent to
// the meter, not yet reported back) and "calib" (group to {"factor", "offset"}).
// A writable setting goes to the meter as a downlink; the meters' readings cannot be
// written; any other name is kept for the client as it is.
#include <QJsonArray>
#include <stdexcept>

#include "calibration.h"
#include "dl_encoder.h"
#include "mbus_driver.h"
#include "quantities.h"

namespace {

const QString settings_key = "settings";
const QString calib_key = "calib";
const QString pending_key = "settings_pending";
// How long a setting's downlink may take before the controller times it out.
constexpr int setting_dl_timeout = 86400;

bool is_reading(const QString& name) {
    for (const model::device_description_entry& e : mbus::device_description()) {
        const auto* p = std::get_if<model::device_parameter>(&e);
        if (p != nullptr && p->name == name) {
            return true;
        }
    }
    return false;
}

// What a modem's read gives for a setting: the pending value marked as such ("failed"
// once its downlink timed out), else the confirmed (or client-kept) one.
QJsonValue setting_value(const QJsonObject& settings, const QJsonObject& pending, const QString& name,
                         interfaces::IMessagesDatabase* messages) {
    if (!pending.contains(name)) {
        return settings.value(name);
    }
    QJsonObject marked = pending.value(name).toObject();
    bool failed = false;
    if (messages != nullptr) {
        try {
            failed = messages->dl().get(marked.value("db_id").toString()).dl_status == model::TIMEOUT;
        } catch (const QString&) {
            failed = true;  // the downlink expired from the store without a confirmation
        }
    }
    marked[failed ? "failed" : "pending"] = true;
    if (settings.contains(name)) {
        marked["confirmed"] = settings.value(name);
    }
    return marked;
}

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

// A newer write of the same setting replaces an open one: the earlier downlink ends as
// TIMEOUT (never confirmed by this driver), so only the newest value can be confirmed.
void MbusDriver::supersede(const QString& db_id) {
    if (db_id.isEmpty() || !m_messages) {
        return;
    }
    try {
        const model::dl_message earlier = m_messages->dl().get(db_id);
        if (earlier.dl_status == model::PENDING || earlier.dl_status == model::WAIT_DATA) {
            m_messages->dl().set_status(db_id, model::TIMEOUT);
        }
    } catch (const QString&) {
        // Gone from the store already (expired): nothing left to end.
    }
}

void MbusDriver::write_settings(const std::map<int, QList<model::setting_item>>& settings) {
    // Every item is checked before anything is written or sent.
    for (const auto& [modem, items] : settings) {
        for (const model::setting_item& item : items) {
            if (mbus::writable_setting(item.name)) {
                mbus::encode_command(mbus::setting_command(item.name, setting_json(item)));
            } else if (is_reading(item.name)) {
                throw std::invalid_argument(
                    QString("mbus settings: \"%1\" is a reading of the meter and cannot be written")
                        .arg(item.name)
                        .toStdString());
            }
        }
    }
    for (const auto& [modem, items] : settings) {
        QJsonObject sent;
        for (const model::setting_item& item : items) {
            if (!mbus::writable_setting(item.name)) {
                continue;
            }
            if (!m_send_dl) {
                throw std::runtime_error("mbus settings: no downlink sender to reach the meter");
            }
            model::dl_message dl;
            dl.modem_id = modem;
            dl.data = mbus::setting_command(item.name, setting_json(item));
            dl.timeout = setting_dl_timeout;
            dl.timestamp = QDateTime::currentDateTimeUtc();
            dl.user_id = "mbus_settings";
            dl.dl_status = model::PENDING;
            const QJsonObject result = m_send_dl(dl);
            sent[item.name] = QJsonObject{{"value", setting_json(item)}, {"db_id", result.value("bd_id")}};
        }
        state().begin(modem);
        QJsonObject stored = state().get(modem, settings_key).toObject();
        QJsonObject pending = state().get(modem, pending_key).toObject();
        for (const model::setting_item& item : items) {
            if (sent.contains(item.name)) {
                supersede(pending.value(item.name).toObject().value("db_id").toString());
                pending[item.name] = sent.value(item.name);
            } else {
                stored[item.name] = setting_json(item);
            }
        }
        state().set(modem, settings_key, QJsonValue(stored));
        state().set(modem, pending_key, QJsonValue(pending));
        state().end(modem, 0);
    }
}

void MbusDriver::read_settings(QList<model::setting_result>& out, const QList<int>& modems,
                               const QStringList& names) {
    for (int modem : modems) {
        const QJsonObject stored = state().get(modem, settings_key).toObject();
        const QJsonObject pending = state().get(modem, pending_key).toObject();
        if (names.isEmpty()) {
            QJsonObject all = stored;
            for (const QString& name : pending.keys()) {
                all[name] = setting_value(stored, pending, name, m_messages.get());
            }
            out << model::setting_result{modem, QString(), all.toVariantMap()};
            continue;
        }
        for (const QString& name : names) {
            // null when unknown
            out << model::setting_result{modem, name,
                                         setting_value(stored, pending, name, m_messages.get()).toVariant()};
        }
    }
}

void MbusDriver::write_calibs(const std::map<int, QList<model::calib_item>>& calibs) {
    for (const auto& [modem, items] : calibs) {
        for (const model::calib_item& item : items) {
            mbus::calibration::check(item);
        }
    }
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
