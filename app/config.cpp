#include "app/config.h"

#include <QCoreApplication>

#include "app/logger.h"

namespace {

// The exchange the uplink queue is bound to; the EXCHANGE and R_EXCHANGE keys do not apply.
const char* const uplink_exchange = "norvik.api";

// Enters an INI group for the lifetime of the guard.
class group_scope {
public:
    group_scope(QSettings& settings, const char* group) : m_settings(settings) {
        m_settings.beginGroup(group);
    }
    ~group_scope() { m_settings.endGroup(); }
    group_scope(const group_scope&) = delete;
    group_scope& operator=(const group_scope&) = delete;

private:
    QSettings& m_settings;
};

// QSettings' INI reader turns an unquoted value with commas into a list; a text key
// means the whole text as written, so such a list is joined back.
QString text_value(QSettings& settings, const char* key, const QString& fallback) {
    const QVariant value = settings.value(key, fallback);
    if (value.type() == QVariant::StringList) {
        return value.toStringList().join(',');
    }
    return value.toString();
}

bool bool_value(QSettings& settings, const char* key, bool fallback) {
    return settings.value(key, fallback).toBool();
}

uint32_t unsigned_value(QSettings& settings, const char* key, uint32_t fallback) {
    return settings.value(key, fallback).toUInt();
}

QString ul_id_or_any(const general_settings& general) {
    return general.ul_id.isEmpty() ? QStringLiteral("#") : general.ul_id;
}

amqp_bindings direct_bindings(const general_settings& general, const PMConfig& pm) {
    amqp_bindings bindings;
    const QString ul_id = ul_id_or_any(general);
    for (const QString& instance : pm.instance_names) {
        const QString tail = "." + instance + "." + pm.protocol + "." + ul_id;
        bindings.append({uplink_exchange, "*.0." + general.ul_route_key + tail});
        bindings.append({uplink_exchange, "*.0." + general.history_route_key + tail});
    }
    return bindings;
}

amqp_bindings balancer_bindings(const general_settings& general, const PMConfig& pm,
                                const EngineConfig& engine) {
    amqp_bindings bindings;
    for (const QString& instance : pm.instance_names) {
        const QString key = QString("%1.%2.%3.%4.%5")
                                .arg(general.balancer_route_key, instance, pm.protocol)
                                .arg(engine.position)
                                .arg(engine.instances);
        bindings.append({uplink_exchange, key});
    }
    return bindings;
}

// The link keys every AMQP group has besides its URL.
template <typename Config>
void load_link_keys(QSettings& settings, Config& config) {
    config.heartbeat = int32_t(unsigned_value(settings, "R_HEARTBEAT", 10));
    config.ca_cert = text_value(settings, "R_CA_CERT", QString());
}

template <typename Config>
Config load_publisher_config(QSettings& settings, const char* group) {
    group_scope scope(settings, group);
    Config config;
    config.url = text_value(settings, "R_LOGIN", default_broker_url);
    config.exchange = text_value(settings, "R_EXCHANGE", "norvik.api");
    config.vhost = text_value(settings, "R_VHOST", "/api");
    load_link_keys(settings, config);
    return config;
}

}  // namespace

general_settings load_general_settings(QSettings& settings) {
    group_scope scope(settings, "GENERAL_SETTINGS");
    general_settings general;
    general.ul_client_send = bool_value(settings, "UL_CLIENT_SEND", false);
    general.ul_client_send_wrap = bool_value(settings, "UL_CLIENT_SEND_MSQ_TYPE_WRAPE", false);
    general.check_is_mine = bool_value(settings, "CHECK_IS_MINE", true);
    general.dl_queues = bool_value(settings, "DL_QUEUES", false);
    general.exchange = text_value(settings, "EXCHANGE", "norvik.api");
    general.history_route_key = text_value(settings, "R_HISTORY_ROUTE_KEY", "ul_history");
    general.ul_id = text_value(settings, "R_UL_ID", QString());
    general.ul_route_key = text_value(settings, "R_UL_ROUTE_KEY", "ul");
    // Days to seconds in 32 bits: above 49710 days the product wraps, unchecked.
    general.ul_dl_ttl = unsigned_value(settings, "UL_DL_TTL", 365) * 86400u;
    general.controller_period = unsigned_value(settings, "CONTROLER_PERIOD", 1000);
    general.balancer_enabled = bool_value(settings, "BALANCER_ENABLED", false);
    general.balancer_route_key = text_value(settings, "BALANCER_ROUTE_KEY", "balancer");
    // Our own addition: the routing-key prefix under which requested history comes back.
    general.history_routing_key_prefix = text_value(settings, "R_HISTORY_PREFIX", QString());
    general.metrics_port = settings.value("METRICS_PORT", 0).toInt();
    general.metrics_address = text_value(settings, "METRICS_ADDRESS", "127.0.0.1");
    return general;
}

PMConfig load_pm_config(QSettings& settings) {
    group_scope scope(settings, "PLUGIN_MANAGER_SETTINGS");
    PMConfig pm;
    pm.db_name = text_value(settings, "DB_NAME", "db_driver_mongo");
    pm.instance_names = text_value(settings, "INSTANCE_NAME", "marl2").split(',', Qt::KeepEmptyParts);
    pm.protocol = text_value(settings, "PROTOCOL", "proto7");
    const QString executable_dir = QCoreApplication::applicationDirPath();
    pm.plugin_config_path = text_value(settings, "PLUGIN_CONFIG_PATH", executable_dir);
    pm.plugin_db_config_path = text_value(settings, "PLUGIN_DB_CONFIG_PATH", pm.plugin_config_path);
    pm.plugin_path = text_value(settings, "PLUGIN_PATH", executable_dir);
    return pm;
}

rabbit_receiver_cfg load_receiver_config(QSettings& settings, const PMConfig& pm, const EngineConfig& engine,
                                         logger* log) {
    rabbit_receiver_cfg config;
    {
        group_scope scope(settings, "AMQP_UL_SETTINGS");
        config.url = text_value(settings, "R_LOGIN", default_broker_url);
        config.queue = text_value(settings, "R_QUEUE", "test_parser");
        config.vhost = text_value(settings, "R_VHOST", "/api");
        config.prefetch = settings.value("R_PREFETCH", "10").toInt();
        config.arguments = load_queue_arguments(settings, log);
        load_link_keys(settings, config);
    }
    // Position before count here; the log name has them the other way round.
    config.queue += QString("_%1_%2_%3from%4")
                        .arg(pm.protocol, pm.instance_names.value(0))
                        .arg(engine.position)
                        .arg(engine.instances);
    const general_settings& general = engine.settings;
    config.bindings =
        general.balancer_enabled ? balancer_bindings(general, pm, engine) : direct_bindings(general, pm);
    if (log && pm.instance_names.isEmpty()) {
        log_line(*log, Error) << "no instance name configured: the uplink queue has no bindings";
    }
    return config;
}

rabbit_api_config load_api_config(QSettings& settings, logger* log) {
    group_scope scope(settings, "AMQP_API_SETTINGS");
    rabbit_api_config config;
    config.url = text_value(settings, "R_LOGIN", default_broker_url);
    config.exchange_cmd = text_value(settings, "R_EXCHANGE_CMD", "norvik.api");
    config.vhost = text_value(settings, "R_VHOST", "/api");
    config.queue = text_value(settings, "R_QUEUE", "quillon_cmd_in");
    config.bindings = parse_bindings(text_value(settings, "R_BINDINGS", "norvik.api:cmd.in.quillon"), log);
    config.api_key = text_value(settings, "SS_API_KEY", "qorvantelimbusardekton");
    config.queue_options = 2;
    config.prefetch = 1;
    config.arguments = load_queue_arguments(settings, log);
    load_link_keys(settings, config);
    config.allow_read = text_value(settings, "R_ALLOW_READ", "*");
    config.allow_write = text_value(settings, "R_ALLOW_WRITE", "*");
    config.allow_admin = text_value(settings, "R_ALLOW_ADMIN", "*");
    return config;
}

QVariantHash load_queue_arguments(QSettings& settings, logger* log) {
    QVariantHash arguments;
    const QString type = text_value(settings, "R_QUEUE_TYPE", QString()).trimmed().toLower();
    if (type == "classic" || type == "quorum") {
        arguments.insert("x-queue-type", type);
    } else if (!type.isEmpty() && log) {
        log_line(*log, Error) << "R_QUEUE_TYPE \"" << type
                              << "\" is neither classic nor quorum; the queue is declared without a type";
    }
    const QString dead_letter_exchange = text_value(settings, "R_DEAD_LETTER_EXCHANGE", QString());
    if (!dead_letter_exchange.isEmpty()) {
        arguments.insert("x-dead-letter-exchange", dead_letter_exchange);
        const QString dead_letter_key = text_value(settings, "R_DEAD_LETTER_ROUTING_KEY", QString());
        if (!dead_letter_key.isEmpty()) {
            arguments.insert("x-dead-letter-routing-key", dead_letter_key);
        }
    }
    return arguments;
}

rabbit_publisher_clients_config load_clients_publisher_config(QSettings& settings) {
    return load_publisher_config<rabbit_publisher_clients_config>(settings, "AMQP_UL_CLIENT_SETTINGS");
}

rabbit_publisher_dl_config load_dl_publisher_config(QSettings& settings) {
    return load_publisher_config<rabbit_publisher_dl_config>(settings, "AMQP_DL_SETTINGS");
}

EngineConfig make_engine_config(const general_settings& settings, int64_t start_time, int32_t instances,
                                int32_t position) {
    EngineConfig engine;
    engine.settings = settings;
    engine.ul_dl_ttl = settings.ul_dl_ttl;
    engine.controller_period = settings.controller_period;
    engine.start_time = start_time;
    engine.instances = instances;
    engine.position = position;
    return engine;
}

amqp_bindings parse_bindings(const QString& text, logger* log) {
    amqp_bindings bindings;
    if (text.isEmpty()) {
        return bindings;  // explicitly configured without bindings
    }
    for (const QString& item : text.split(',', Qt::KeepEmptyParts)) {
        const QStringList parts = item.split(':', Qt::KeepEmptyParts);
        if (parts.size() < 2) {
            if (log) {
                log_line(*log, Error) << "binding \"" << item << "\" skipped: expected exchange:routing_key";
            }
            continue;
        }
        bindings.append({parts.at(0), parts.at(1)});
    }
    return bindings;
}
