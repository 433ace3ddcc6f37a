#include "commands/GetIDs.h"

#include <QJsonArray>

#include "commands/device_filters.h"
#include "commands/handler_support.h"

GetIDs::GetIDs(std::shared_ptr<command_context> context) : m_context(std::move(context)) {}

QJsonObject GetIDs::execute(const api_message& message) {
    const QJsonObject body = handler_support::command_body(message, *m_context, "get_ids");
    if (!body.contains("hw_type") || !body.contains("protocol")) {
        return QJsonObject();
    }
    const QString hw_type = body.value("hw_type").toString();
    const QString protocol = body.value("protocol").toString();
    if (!filters_pass(hw_type, protocol)) {
        return QJsonObject();
    }
    return QJsonObject{{protocol + ":" + hw_type, listed_ids(hw_type, protocol)}};
}

bool GetIDs::filters_pass(const QString& hw_type, const QString& protocol) const {
    const driver_acceptance& driver = *m_context->acceptance;
    return device_filters::hw_type_passes(driver, hw_type) &&
           device_filters::protocol_passes(driver, protocol);
}

QJsonArray GetIDs::listed_ids(const QString& hw_type, const QString& protocol) const {
    QJsonArray ids;
    for (int id : m_context->state->ids(hw_type, protocol)) {
        ids.append(id);
    }
    return ids;
}
