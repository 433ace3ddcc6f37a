#include "commands/GetInfo.h"

GetInfo::GetInfo(std::shared_ptr<command_context> context) : m_context(std::move(context)) {}

QJsonObject GetInfo::execute(const api_message&) {
    return QJsonObject{{instance_key(), description()}};
}

QString GetInfo::instance_key() const {
    return m_context->pm_config.protocol + ":" + m_context->pm_config.instance_names.join(",");
}

QJsonObject GetInfo::description() const {
    const command_context& c = *m_context;
    const general_settings& settings = c.engine_config.settings;
    QJsonObject info;
    info["version"] = version;
    info["build timestamp"] = build_timestamp;
    info["up timestamp"] = qint64(c.engine_config.start_time);
    info["protocol"] = c.driver ? c.driver->type_name() : QString();
    info["hw type"] = c.driver ? c.driver->hw_pattern() : QString();
    info["db plugin"] = c.pm_config.db_name;
    info["instances count"] = c.engine_config.instances;
    info["instance number"] = c.engine_config.position;
    info["instance name"] = c.pm_config.instance_names.join(",");
    info["check is mine"] = settings.check_is_mine;
    info["ul dl ttl"] = qint64(settings.ul_dl_ttl);
    info["client send"] = settings.ul_client_send;
    info["controler period"] = qint64(settings.controller_period);
    info["dl queues"] = settings.dl_queues;
    return info;
}
