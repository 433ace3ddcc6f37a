#include "commands/CustomRequest.h"

#include "commands/handler_support.h"
#include "commands/query_readers.h"
#include "model/json.h"

CustomRequest::CustomRequest(std::shared_ptr<command_context> context) : m_context(std::move(context)) {}

QJsonObject CustomRequest::execute(const api_message& message) {
    const QJsonObject body = handler_support::command_body(message, *m_context, "custom_request");
    const model::custom_query query = own_modems_only(read_query(body));
    if (!query.instance.isEmpty()) {
        return for_named_instance(query);
    }
    if (query.modem_id.isEmpty()) {
        return QJsonObject();
    }
    return m_context->driver->custom_query(query);
}

void CustomRequest::on_roll(model::ul_message) {}
void CustomRequest::on_value(model::dev_value) {}
void CustomRequest::on_event(model::dev_event) {}

// The record reader takes every element with toInt(0); the modem list is read again here
// so that non-numbers and overflowing ids are dropped rather than becoming modem 0.
model::custom_query CustomRequest::read_query(const QJsonObject& body) const {
    model::custom_query query = model::custom_query_from_json(body);
    query.modem_id = query_readers::modem_ids(body.value("modem_id"), *m_context);
    return query;
}

// Keeps, in their order, only the modems that this instance's driver serves.
model::custom_query CustomRequest::own_modems_only(model::custom_query query) const {
    const ownership owner = m_context->owner();
    QList<int> own;
    for (int id : query.modem_id) {
        if (owner.is_mine(id)) {
            own.append(id);
        }
    }
    query.modem_id = own;
    return query;
}

QJsonObject CustomRequest::for_named_instance(const model::custom_query& query) const {
    const PMConfig& pm = m_context->pm_config;
    for (const QString& name : pm.instance_names) {
        if (pm.protocol + "_" + name == query.instance) {
            return m_context->driver->custom_query(query);
        }
    }
    return QJsonObject();
}
