// The per-type steps of the engine for uplinks and heartbeats.
#include <QJsonDocument>

#include "engine/Engiene.h"
#include "engine/heartbeat.h"
#include "engine/publication.h"
#include "engine/store_timer.h"
#include "model/json.h"
#include "model/uplink_identity.h"

namespace {
model::eav_list as_eav_list(const QList<model::dev_value>& values) {
    model::eav_list records;
    for (const auto& value : values) {
        records.emplace_back(value);
    }
    return records;
}
}  // namespace

bool Engiene::processUlApp(const QJsonObject& json, model::ul_message& stored) {
    const auto uplink = model::ul_app_message_from_json(json);
    if (!isMine(uplink.modem_id, uplink.protocol, uplink.hw_type)) {
        return false;
    }
    m_driver->parse(uplink, stored);
    model::copy_uplink_fields(uplink, stored);  // whatever the driver made of them
    stored.ttl = QDateTime::currentDateTimeUtc().addSecs(m_config.ul_dl_ttl);
    if (m_handling_redelivered && alreadyStored(stored)) {
        m_found_stored = true;
        log_line(m_log, Info) << "instance: " << QString::number(m_config.position)
                              << " message tag: " << static_cast<uint64_t>(m_handling_tag)
                              << " delivered again and stored already: modem "
                              << QString::number(stored.modem_id) << " iterator "
                              << QString::number(stored.iterator);
        return true;
    }
    {
        store_timer timed(*m_metrics, service_metrics::store_operation::save_message);
        m_messages->ul().save(stored);
    }

    const model::eav_list records = m_driver->explode(stored);
    saveExploidObjects(records);
    storeModemState(stored.modem_id, json, nullptr);
    if (m_config.settings.ul_client_send) {
        publishToClients(stored, records);
    }
    if (m_driver->needs_dl_processing(controller_event{stored})) {
        afterStored("DL status refresh", [&] { refreshDlStatuses(stored); });
    }
    return true;
}

bool Engiene::alreadyStored(const model::ul_message& stored) {
    model::roll_query query;
    query.modem_id = {stored.modem_id};
    query.time_detected = true;
    query.from = stored.time_detected.addSecs(-1);
    query.to = stored.time_detected.addSecs(1);
    query.limit = 100;
    model::per_modem<model::ul_message> found;
    m_messages->ul().get_roll(found, query);
    const auto it = found.find(stored.modem_id);
    if (it == found.end()) {
        return false;
    }
    for (const auto& earlier : it->second) {
        if (earlier.iterator == stored.iterator && earlier.payload == stored.payload &&
            earlier.time_detected == stored.time_detected && earlier.unique_id == stored.unique_id) {
            return true;
        }
    }
    return false;
}

bool Engiene::processHeartbeat(const QJsonObject& json, model::ul_message& stored) {
    const auto hb = model::ul_hb_message_from_json(json);
    if (!isMine(hb.modem_id, hb.protocol, hb.hw_type)) {
        return false;
    }
    stored = heartbeat::stored_message(hb);
    {
        store_timer timed(*m_metrics, service_metrics::store_operation::save_message);
        m_messages->ul().save(stored);
    }

    const model::eav_list records = as_eav_list(heartbeat::values(stored));
    saveExploidObjects(records);
    const QJsonObject data = stored.data.object();
    storeModemState(stored.modem_id, json, &data);
    if (m_config.settings.ul_client_send) {
        publishToClients(stored, records);
    }
    return true;
}

void Engiene::saveExploidObjects(const model::eav_list& records) {
    QList<model::dev_event> events;
    QList<model::dev_value> values;
    try {
        for (const auto& record : records) {
            if (const auto* event = std::get_if<model::dev_event>(&record)) {
                events.append(*event);
            } else {
                values.append(std::get<model::dev_value>(record));
            }
        }
    } catch (...) {
        // Whatever was gathered is still saved.
    }
    store_timer timed(*m_metrics, service_metrics::store_operation::save_records);
    if (!events.isEmpty()) {
        m_eav->records().save_events(events);
    }
    if (!values.isEmpty()) {
        m_eav->records().save_values(values);
    }
}

void Engiene::storeModemState(int modem_id, const QJsonObject& json, const QJsonObject* heartbeat_data) {
    store_timer timed(*m_metrics, service_metrics::store_operation::modem_state);
    m_state->begin(modem_id);
    // Handed over as JSON values: the store writes them without a detour through text.
    m_state->set(modem_id, "common", QJsonValue(model::modem_radio_summary(json)));
    if (heartbeat_data) {
        m_state->set(modem_id, "heartbeat", QJsonValue(*heartbeat_data));
    }
    m_state->end(modem_id, 0);
}

void Engiene::publishToClients(const model::ul_message& stored, const model::eav_list& records) {
    QStringList clients = m_clients->clients_store().clients(stored.modem_id);
    if (clients.isEmpty()) {
        clients.append("null");
    }
    publication::publish_uplink(stored, records, clients, *m_outbox, m_config.settings.ul_client_send_wrap);
}

// Lets the driver move the modem's unacknowledged downlinks on after an uplink.
void Engiene::refreshDlStatuses(const model::ul_message& stored) {
    model::dl_query query;
    query.modem_id = {stored.modem_id};
    query.from = QDateTime::fromSecsSinceEpoch(0, Qt::UTC);
    query.to = QDateTime::currentDateTimeUtc();
    query.limit = 1000;
    const auto pending = m_messages->dl().list_not_acked(query);
    const auto found = pending.find(stored.modem_id);
    if (found == pending.end()) {
        return;
    }
    const controller_event event{stored};
    for (const auto& message : found->second) {
        const int status = m_driver->new_dl_status(event, message);
        if (status != message.dl_status) {
            m_messages->dl().set_status(message.db_id, status);
        }
    }
}
