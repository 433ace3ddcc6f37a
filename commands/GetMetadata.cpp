#include "commands/GetMetadata.h"

#include "commands/device_filters.h"
#include "commands/handler_support.h"
#include "commands/keyed_reply.h"
#include "commands/metadata_file.h"
#include "commands/query_readers.h"
#include "model/json.h"

GetMetadata::GetMetadata(std::shared_ptr<command_context> context) : m_context(std::move(context)) {}

QJsonObject GetMetadata::execute(const api_message& message) {
    const QJsonObject body = handler_support::command_body(message, *m_context, "get_metadata");
    if (body.contains("modem_id")) {
        return per_modem(body);
    }
    if (body.contains("hw_type") && body.contains("protocol")) {
        return per_hw_type(body);
    }
    return QJsonObject();
}

QJsonObject GetMetadata::per_modem(const QJsonObject& body) const {
    const ownership owner = m_context->owner();
    keyed_reply reply;
    for (int id : query_readers::owned_modem_ids(body.value("modem_id"), *m_context)) {
        const QString hw_type = owner.device_of(id).second;
        reply.insert(id, metadata_for(body, hw_type));
    }
    return reply.take();
}

QJsonObject GetMetadata::per_hw_type(const QJsonObject& body) const {
    const QString hw_type = body.value("hw_type").toString();
    const QString protocol = body.value("protocol").toString();
    const driver_acceptance& driver = *m_context->acceptance;
    if (!device_filters::hw_type_passes(driver, hw_type) ||
        !device_filters::protocol_passes(driver, protocol)) {
        return QJsonObject();
    }
    return metadata_for(body, hw_type);
}

QJsonObject GetMetadata::metadata_for(const QJsonObject& body, const QString& hw_type) const {
    if (body.contains("app_id")) {
        // A numeric application id names the same file as its decimal text.
        return file_metadata(body.value("app_id").toVariant().toString(), hw_type);
    }
    return model::to_json(m_context->driver->metadata(hw_type));
}

QJsonObject GetMetadata::file_metadata(const QString& app_id, const QString& hw_type) const {
    const PMConfig& pm = m_context->pm_config;
    const QString instance = pm.instance_names.isEmpty() ? QString() : pm.instance_names.first();
    QJsonObject metadata;
    metadata_file(pm.plugin_config_path, app_id, pm.protocol, instance).load(metadata, hw_type);
    return metadata;
}
