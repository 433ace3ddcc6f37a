#include "mbus_driver.h"

#include <QJsonArray>
#include <stdexcept>

#include "calibration.h"
#include "decoder.h"
#include "dl_encoder.h"
#include "eav.h"
#include "model/query_bounds.h"
#include "model/uplink_identity.h"
#include "quantities.h"
#include "stored_message.h"

mbus_driver_config mbus_driver_config::from_json(const QJsonObject& o) {
    mbus_driver_config c;
    c.protocol = o["protocol"].toString(c.protocol);
    if (o["instances"].isArray()) {
        c.instances.clear();
        for (const QJsonValue& v : o["instances"].toArray()) {
            c.instances << v.toString();
        }
    }
    c.hw_pattern = o["hw_pattern"].toString(c.hw_pattern);
    return c;
}

namespace {

QDateTime time_or_now(const QDateTime& t) {
    return t.isValid() ? t : QDateTime::currentDateTimeUtc();
}

// The text goes to the store and to the clients with every message; the document form is
// built from the same decoding only if someone reads it.
void set_data(model::ul_message& out, const std::shared_ptr<const mbus::decode_result>& decoded) {
    out.data =
        model::deferred_document::built_by([decoded] { return QJsonDocument(mbus::message_data(*decoded)); });
    out.data_text = mbus::message_data_text(*decoded);
}

}  // namespace

MbusDriver::MbusDriver(const mbus_driver_config& config,
                       std::shared_ptr<interfaces::IMessagesDatabase> messages,
                       std::shared_ptr<interfaces::IDriverState> state, interfaces::dl_sender send_dl,
                       int ttl_seconds, std::shared_ptr<interfaces::IEAVDatabase> eav)
    : m_config(config),
      m_messages(std::move(messages)),
      m_state(std::move(state)),
      m_send_dl(std::move(send_dl)),
      m_ttl_seconds(ttl_seconds),
      m_eav(std::move(eav)) {}

model::device_description MbusDriver::metadata(const QString&) {
    model::device_description d = mbus::device_description();
    for (model::device_description_entry& e : d) {
        if (auto* p = std::get_if<model::device_parameter>(&e)) {
            p->calib = true;  // every value can be calibrated, see calibration.h
            p->write = mbus::writable_setting(p->name);
        }
    }
    return d;
}

void MbusDriver::parse(const model::ul_app_message& in, model::ul_message& out) {
    out.modem_id = in.modem_id;
    model::copy_uplink_fields(in, out);

    m_last_parsed.reset();
    auto decoded = std::make_shared<const mbus::decode_result>(decode_for(in.modem_id, in.payload));
    report_security(in.modem_id, *decoded);
    out.tag = tag;
    out.parse_status = decoded->status;
    set_data(out, decoded);
    out.timestamp = QDateTime::currentDateTimeUtc();
    out.unique_id = model::uplink_unique_id(in.payload, in.modem_id, in.iterator, in.time_detected);
    out.ttl = time_or_now(in.time_detected).addSecs(m_ttl_seconds);
    m_last_parsed = parsed_decoding{in.modem_id, in.payload, std::move(decoded)};
}

mbus::decode_result MbusDriver::decode_for(int modem_id, const QByteArray& payload) const {
    // The registry is read only for a payload that needs it, and again for each message:
    // a key set with quillon-devices applies from the next telegram on.
    if (!m_meters || !mbus::needs_meter_link(payload)) {
        return mbus::decode(payload);
    }
    return mbus::decode(payload, m_meters(modem_id));
}

void MbusDriver::report_security(int modem_id, const mbus::decode_result& decoded) {
    if (decoded.security_problem.isEmpty()) {
        if (decoded.decrypted) {
            m_security_reported.erase(modem_id);
        }
        return;
    }
    QString& last = m_security_reported[modem_id];
    if (last == decoded.security_problem) {
        return;
    }
    last = decoded.security_problem;
    if (m_log) {
        m_log(2, QString("mbus: modem %1: %2; its telegrams are stored with parse_status \"%3\" and give no "
                         "values (logged once until this changes)")
                     .arg(modem_id)
                     .arg(decoded.security_problem, decoded.status));
    }
}

model::eav_list MbusDriver::explode(const model::ul_message& message) {
    const QJsonObject calib = calib_of(message.modem_id);
    std::optional<parsed_decoding> parsed;
    parsed.swap(m_last_parsed);
    if (parsed && parsed->modem_id == message.modem_id && parsed->payload == message.payload) {
        return explode_decoded(message, *parsed->decoded, calib);
    }
    return explode_with(message, calib);
}

QJsonObject MbusDriver::calib_of(int modem_id) const {
    return m_state ? m_state->get(modem_id, "calib").toObject() : QJsonObject();
}

model::eav_list MbusDriver::explode_with(const model::ul_message& message, const QJsonObject& calib) const {
    return explode_decoded(message, decode_for(message.modem_id, message.payload), calib);
}

model::eav_list MbusDriver::explode_decoded(const model::ul_message& message,
                                            const mbus::decode_result& decoded,
                                            const QJsonObject& calib) const {
    mbus::message_context ctx;
    ctx.modem_id = message.modem_id;
    ctx.time_detected = time_or_now(message.time_detected);
    ctx.tag = message.tag.isEmpty() ? QString(tag) : message.tag;
    ctx.message_id = model::uplink_message_id(message.unique_id);
    ctx.ttl = ctx.time_detected.addSecs(m_ttl_seconds);
    model::eav_list records = mbus::to_eav(decoded, ctx);
    const mbus::calibration calibration(calib);
    for (model::eav_record& r : records) {
        if (auto* v = std::get_if<model::dev_value>(&r)) {
            calibration.apply(*v);
        }
    }
    return records;
}

model::ul_message MbusDriver::redecode(const model::ul_message& stored) const {
    model::ul_message out = stored;
    const auto decoded =
        std::make_shared<const mbus::decode_result>(decode_for(stored.modem_id, stored.payload));
    out.tag = tag;
    out.parse_status = decoded->status;
    set_data(out, decoded);
    return out;
}

void MbusDriver::extract_roll(model::per_modem<model::ul_message>& out, const model::roll_query& query) {
    if (!m_messages) {
        throw std::runtime_error("mbus driver: no messages store to extract from");
    }
    model::per_modem<model::ul_message> stored;
    m_messages->ul().get_roll(stored, query);
    for (const auto& [modem, messages] : stored) {
        std::vector<model::ul_message>& list = out[modem];
        for (const model::ul_message& m : messages) {
            list.push_back(redecode(m));
        }
    }
}

model::per_modem<model::ul_message> MbusDriver::roll_for(const model::value_query& query) const {
    if (!m_messages) {
        throw std::runtime_error("mbus driver: no messages store to extract from");
    }
    model::roll_query roll;
    roll.modem_id = query.modem_id;
    roll.from = query.from;
    roll.to = query.to;
    roll.limit = query.limit;
    roll.time_detected = true;  // values of storage 0 carry time_detected
    roll.fill = query.fill;
    model::per_modem<model::ul_message> stored;
    m_messages->ul().get_roll(stored, roll);
    return stored;
}

// Records per modem and in all as the stores bound them (the limit, its default for 0 or
// less, and the cap on the whole result).
void MbusDriver::extract_values(model::per_modem<model::dev_value>& out, const model::value_query& query) {
    model::record_budget budget(query.limit);
    for (const auto& [modem, messages] : roll_for(query)) {
        if (budget.exhausted()) {
            break;
        }
        const size_t room = static_cast<size_t>(budget.next());
        std::vector<model::dev_value>& list = out[modem];
        const QJsonObject calib = calib_of(modem);
        for (const model::ul_message& m : messages) {
            // A calibrated value is found by its own tag or by its message's.
            const QString message_tag = m.tag.isEmpty() ? QString(tag) : m.tag;
            for (const model::eav_record& r : explode_with(m, calib)) {
                const auto* v = std::get_if<model::dev_value>(&r);
                if (v == nullptr || list.size() >= room) {
                    continue;
                }
                if ((query.obis_codes.isEmpty() || query.obis_codes.contains(v->obis_code)) &&
                    (query.tag.isEmpty() || query.tag.contains(v->tag) || query.tag.contains(message_tag))) {
                    list.push_back(*v);
                }
            }
        }
        budget.spend(list.size());
    }
}

void MbusDriver::extract_events(model::per_modem<model::dev_event>& out, const model::value_query& query) {
    model::record_budget budget(query.limit);
    for (const auto& [modem, messages] : roll_for(query)) {
        if (budget.exhausted()) {
            break;
        }
        const size_t room = static_cast<size_t>(budget.next());
        std::vector<model::dev_event>& list = out[modem];
        for (const model::ul_message& m : messages) {
            // Events have no tag of their own: they are selected by their message's tag.
            const QString message_tag = m.tag.isEmpty() ? QString(tag) : m.tag;
            if (!query.tag.isEmpty() && !query.tag.contains(message_tag)) {
                continue;
            }
            for (const model::eav_record& r : explode_with(m, QJsonObject())) {
                const auto* e = std::get_if<model::dev_event>(&r);
                if (e != nullptr && list.size() < room) {
                    list.push_back(*e);
                }
            }
        }
        budget.spend(list.size());
    }
}
