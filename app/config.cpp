#include "app/config.h"

#include "app/config_keys.h"
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
    config.heartbeat = int32_t(key_unsigned(settings, "R_HEARTBEAT"));
    config.ca_cert = key_text(settings, "R_CA_CERT");
}

template <typename Config>
Config load_publisher_config(QSettings& settings, const char* group) {
    group_scope scope(settings, group);
    Config config;
    config.url = key_text(settings, "R_LOGIN");
    config.exchange = key_text(settings, "R_EXCHANGE");
    config.vhost = key_text(settings, "R_VHOST");
    load_link_keys(settings, config);
    return config;
}

}  // namespace

general_settings load_general_settings(QSettings& settings) {
    group_scope scope(settings, "GENERAL_SETTINGS");
    general_settings general;
    general.ul_client_send = key_bool(settings, "UL_CLIENT_SEND");
    general.ul_client_send_wrap = key_bool(settings, "UL_CLIENT_SEND_MSQ_TYPE_WRAPE");
    general.check_is_mine = key_bool(settings, "CHECK_IS_MINE");
    general.dl_queues = key_bool(settings, "DL_QUEUES");
    general.exchange = key_text(settings, "EXCHANGE");
    general.history_route_key = key_text(settings, "R_HISTORY_ROUTE_KEY");
    general.ul_id = key_text(settings, "R_UL_ID");
    general.ul_route_key = key_text(settings, "R_UL_ROUTE_KEY");
    // Days to seconds in 32 bits: above 49710 days the product wraps, unchecked.
    general.ul_dl_ttl = key_unsigned(settings, "UL_DL_TTL") * 86400u;
    general.controller_period = key_unsigned(settings, "CONTROLER_PERIOD");
    general.balancer_enabled = key_bool(settings, "BALANCER_ENABLED");
    general.balancer_route_key = key_text(settings, "BALANCER_ROUTE_KEY");
    // Our own addition: the routing-key prefix under which requested history comes back.
    general.history_routing_key_prefix = key_text(settings, "R_HISTORY_PREFIX");
    general.metrics_port = key_int(settings, "METRICS_PORT");
    general.metrics_address = key_text(settings, "METRICS_ADDRESS");
    return general;
}

PMConfig load_pm_config(QSettings& settings) {
    group_scope scope(settings, "PLUGIN_MANAGER_SETTINGS");
    PMConfig pm;
    pm.db_name = key_text(settings, "DB_NAME");
    pm.instance_names = key_text(settings, "INSTANCE_NAME").split(',', Qt::KeepEmptyParts);
    pm.protocol = key_text(settings, "PROTOCOL");
    pm.plugin_config_path = key_text(settings, "PLUGIN_CONFIG_PATH");
    pm.plugin_db_config_path = key_text(settings, "PLUGIN_DB_CONFIG_PATH");
    pm.plugin_path = key_text(settings, "PLUGIN_PATH");
    return pm;
}

rabbit_receiver_cfg load_receiver_config(QSettings& settings, const PMConfig& pm, const EngineConfig& engine,
                                         logger* log) {
    rabbit_receiver_cfg config;
    {
        group_scope scope(settings, "AMQP_UL_SETTINGS");
        config.url = key_text(settings, "R_LOGIN");
        config.queue = key_text(settings, "R_QUEUE");
        config.vhost = key_text(settings, "R_VHOST");
        config.prefetch = key_int(settings, "R_PREFETCH");
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
    config.url = key_text(settings, "R_LOGIN");
    config.exchange_cmd = key_text(settings, "R_EXCHANGE_CMD");
    config.vhost = key_text(settings, "R_VHOST");
    config.queue = key_text(settings, "R_QUEUE");
    config.bindings = parse_bindings(key_text(settings, "R_BINDINGS"), log);
    config.api_key = key_text(settings, "SS_API_KEY");
    config.queue_options = 2;
    config.prefetch = 1;
    config.arguments = load_queue_arguments(settings, log);
    load_link_keys(settings, config);
    config.allow_read = key_text(settings, "R_ALLOW_READ");
    config.allow_write = key_text(settings, "R_ALLOW_WRITE");
    config.allow_admin = key_text(settings, "R_ALLOW_ADMIN");
    return config;
}

QVariantHash load_queue_arguments(QSettings& settings, logger* log) {
    QVariantHash arguments;
    const QString type = key_text(settings, "R_QUEUE_TYPE").trimmed().toLower();
    if (type == "classic" || type == "quorum") {
        arguments.insert("x-queue-type", type);
    } else if (!type.isEmpty() && log) {
        log_line(*log, Error) << "R_QUEUE_TYPE \"" << type
                              << "\" is neither classic nor quorum; the queue is declared without a type";
    }
    const QString dead_letter_exchange = key_text(settings, "R_DEAD_LETTER_EXCHANGE");
    if (!dead_letter_exchange.isEmpty()) {
        arguments.insert("x-dead-letter-exchange", dead_letter_exchange);
        const QString dead_letter_key = key_text(settings, "R_DEAD_LETTER_ROUTING_KEY");
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
