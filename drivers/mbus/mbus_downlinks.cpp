// Driver-built downlinks of the M-Bus driver: encoding, their status, the time-out by
// the controller tick, and settings that an uplink confirms.
#include <QJsonArray>
#include <optional>
#include <stdexcept>

#include "dl_encoder.h"
#include "mbus_driver.h"

namespace {

const QString watch_key = "dl_watch";
const QString pending_key = "settings_pending";
const QString settings_key = "settings";
// Not-acknowledged downlinks looked at per modem and tick.
constexpr int open_downlinks_limit = 1000;

// The last numeric value the uplink reports under the obis code.
std::optional<double> reported(const model::ul_message& uplink, const QString& obis_code) {
    std::optional<double> found;
    for (const QJsonValue& r : uplink.data.object().value("records").toArray()) {
        const QJsonObject record = r.toObject();
        if (record.value("obis_code").toString() == obis_code && record.value("value").isDouble()) {
            found = record.value("value").toDouble();
        }
    }
    return found;
}

bool is_tick(const controller_event& event) {
    const auto* ul = std::get_if<model::ul_message>(&event);
    return ul != nullptr && ul->modem_id == 0 && !ul->time_detected.isValid();
}

}  // namespace

QByteArray MbusDriver::encode_dl(const model::dl_message& message, const std::pair<QString, QString>&) {
    if (!mbus::is_command(message.data)) {
        return message.payload;  // a raw downlink: the bytes go to the meter as they are
    }
    const QByteArray bytes = mbus::encode_command(message.data);
    watch_downlinks(message.modem_id, true);
    return bytes;
}

bool MbusDriver::needs_dl_processing(const controller_event& event) {
    if (std::holds_alternative<model::dl_event>(event)) {
        return true;
    }
    const auto& uplink = std::get<model::ul_message>(event);
    return m_state && m_state->get(uplink.modem_id, watch_key).toBool();
}

int MbusDriver::new_dl_status(const controller_event& event, const model::dl_message& message) {
    const bool command = mbus::is_command(message.data);
    if (const auto* uplink = std::get_if<model::ul_message>(&event)) {
        if (!command || message.dl_status != model::WAIT_DATA || !mbus::needs_confirmation(message.data)) {
            return message.dl_status;
        }
        const mbus::confirmation expected = mbus::confirmation_of(message.data);
        const std::optional<double> value = reported(*uplink, expected.obis_code);
        return value && *value == expected.value ? int(model::EXECUTED) : message.dl_status;
    }
    const auto& report = std::get<model::dl_event>(event);
    if (command && (message.dl_status == model::EXECUTED || message.dl_status == model::TIMEOUT)) {
        return message.dl_status;  // final: a late report (of a superseded write, say) changes nothing
    }
    if (report.msg_type == "dl_success") {
        return command && mbus::needs_confirmation(message.data) ? model::WAIT_DATA : model::EXECUTED;
    }
    if (report.msg_type == "dl_fault") {
        return model::TIMEOUT;
    }
    if (!command && (report.msg_type == "dl_queued" || report.msg_type == "dl_inprocess")) {
        return model::WAIT_DATA;
    }
    // A command waits in PENDING until delivered: WAIT_DATA means "delivered, not yet confirmed".
    return message.dl_status;
}

bool MbusDriver::controller(const controller_event& event) {
    if (is_tick(event)) {
        return time_out_downlinks();
    }
    if (const auto* uplink = std::get_if<model::ul_message>(&event)) {
        return confirm_settings(*uplink);
    }
    return false;
}

void MbusDriver::watch_downlinks(int modem_id, bool on) {
    if (!m_state) {
        return;  // no state store: the tick has nothing to look at either
    }
    if (m_watch_loaded && on == (m_watched.count(modem_id) > 0)) {
        return;
    }
    m_state->begin(modem_id);
    m_state->set(modem_id, watch_key, QJsonValue(on));
    m_state->end(modem_id, 0);
    if (on) {
        m_watched.insert(modem_id);
    } else {
        m_watched.erase(modem_id);
    }
}

bool MbusDriver::time_out_downlinks() {
    if (!m_state || !m_messages) {
        return false;
    }
    if (!m_watch_loaded) {
        for (int modem : m_state->modems_with_state()) {
            if (m_state->get(modem, watch_key).toBool()) {
                m_watched.insert(modem);
            }
        }
        m_watch_loaded = true;
    }
    if (m_watched.empty()) {
        return false;
    }
    const QDateTime now = QDateTime::currentDateTimeUtc();
    model::dl_query query;
    query.modem_id = QList<int>(m_watched.begin(), m_watched.end());
    query.from = QDateTime::fromSecsSinceEpoch(0, Qt::UTC);
    query.to = now;
    query.limit = open_downlinks_limit;
    const auto open = m_messages->dl().list_not_acked(query);
    const std::set<int> watched = m_watched;
    for (int modem : watched) {
        int still_open = 0;
        const auto found = open.find(modem);
        if (found != open.end()) {
            for (const model::dl_message& m : found->second) {
                if (!mbus::is_command(m.data)) {
                    continue;
                }
                if (m.timestamp.addSecs(m.timeout) < now) {
                    m_messages->dl().set_status(m.db_id, model::TIMEOUT);
                } else {
                    ++still_open;
                }
            }
        }
        if (still_open == 0) {
            watch_downlinks(modem, false);
        }
    }
    return true;
}

bool MbusDriver::confirm_settings(const model::ul_message& uplink) {
    if (!m_state) {
        return false;
    }
    QJsonObject pending = m_state->get(uplink.modem_id, pending_key).toObject();
    if (pending.isEmpty()) {
        return false;
    }
    QJsonObject settings = m_state->get(uplink.modem_id, settings_key).toObject();
    bool changed = false;
    for (const QString& name : pending.keys()) {
        const QJsonValue wanted = pending.value(name).toObject().value("value");
        const std::optional<double> value = reported(uplink, name);
        if (value && *value == wanted.toDouble()) {
            settings[name] = wanted;
            pending.remove(name);
            changed = true;
        }
    }
    if (changed) {
        m_state->begin(uplink.modem_id);
        m_state->set(uplink.modem_id, settings_key, QJsonValue(settings));
        m_state->set(uplink.modem_id, pending_key, QJsonValue(pending));
        m_state->end(uplink.modem_id, 0);
    }
    return changed;
}
