#include "plugins/PluginsManager.h"

#include <QDebug>
#include <stdexcept>

#include "plugins/plugin_scan.h"

namespace {
const char* const fallback_database = "db_driver_dummy";
}

PluginsManager::PluginsManager(const PMConfig& config, logger& log) : m_config(config), m_log(log) {
    scan_drivers();
    scan_database(fallback_database);
    scan_database(m_config.db_name);
}

PluginsManager::~PluginsManager() = default;

void PluginsManager::scan_drivers() {
    const auto found =
        plugin_scan::scan<interfaces::IDriverFactory>(m_config.plugin_path, m_config.plugin_config_path);
    for (const auto& plugin : found) {
        m_driver_factories.append({plugin.factory, plugin.configuration, plugin.path});
    }
}

void PluginsManager::scan_database(const QString& name_part) {
    const auto wanted = [&name_part](const QFileInfo& file) {
        const bool matches = file.baseName().contains(name_part, Qt::CaseSensitive);
        qDebug() << (matches ? "true" : "false");
        return matches;
    };
    const auto found = plugin_scan::scan<interfaces::IDatabaseFactory>(
        m_config.plugin_path, m_config.plugin_db_config_path, wanted);
    for (const auto& plugin : found) {
        m_database_factory = plugin.factory;
        m_database_configuration = plugin.configuration;
        m_database_path = plugin.path;
    }
}

interfaces::IDatabaseFactory& PluginsManager::database_factory() {
    if (!m_database_factory) {
        const QString text = QString("no database plugin found for DB_NAME \"%1\" (nor \"%2\") in \"%3\"")
                                 .arg(m_config.db_name, fallback_database, m_config.plugin_path);
        log_line(m_log, Error) << text;
        throw std::runtime_error(text.toStdString());
    }
    return *m_database_factory;
}

std::shared_ptr<interfaces::IDeviceClientsDatabase> PluginsManager::clients_database() {
    if (!m_clients) {
        m_clients = database_factory().create_clients(m_database_configuration, &m_objects_parent);
    }
    return m_clients;
}

std::shared_ptr<interfaces::IMessagesDatabase> PluginsManager::messages_database() {
    if (!m_messages) {
        m_messages = database_factory().create_messages(m_database_configuration, &m_objects_parent);
    }
    return m_messages;
}

std::shared_ptr<interfaces::IEAVDatabase> PluginsManager::eav_database() {
    if (!m_eav) {
        m_eav = database_factory().create_eav(m_database_configuration, &m_objects_parent);
    }
    return m_eav;
}

std::shared_ptr<interfaces::IDriverState> PluginsManager::state_database() {
    if (!m_state) {
        m_state = database_factory().create_state(m_database_configuration, &m_objects_parent);
    }
    return m_state;
}

std::shared_ptr<interfaces::IDriver> PluginsManager::create_driver(
    std::shared_ptr<interfaces::IMessagesDatabase> messages, std::shared_ptr<interfaces::IEAVDatabase> eav,
    interfaces::dl_sender send_dl, int ttl_seconds, int position) {
    const QString protocol = m_config.protocol.toLower();
    const QString instance = m_config.instance_names.value(0).toLower();
    for (const driver_factory_entry& entry : m_driver_factories) {
        // A driver plugin without its configuration file is loaded but never asked.
        if (entry.configuration.isEmpty()) {
            continue;
        }
        for (const interfaces::protocol_instance& pair : entry.factory->supported(entry.configuration)) {
            if (pair.first.toLower() != protocol || pair.second.toLower() != instance) {
                continue;
            }
            entry.factory->prepare(pair, messages, eav, state_database(), clients_database());
            auto driver = entry.factory->create(pair, messages, eav, state_database(), std::move(send_dl),
                                                ttl_seconds, position);
            if (driver) {
                logger& log = m_log;
                driver->set_log([&log](int level, const QString& text) { log_line(log, level) << text; });
            }
            return driver;
        }
    }
    log_line(m_log, Error) << "no driver plugin serves protocol " << m_config.protocol << " instance "
                           << m_config.instance_names.value(0);
    throw no_devive_type_implemented(m_config.protocol, m_config.instance_names.value(0));
}

QJsonArray PluginsManager::describe_driver_factories() const {
    QJsonArray list;
    for (const driver_factory_entry& entry : m_driver_factories) {
        list.append(QJsonObject{{"name", entry.factory->name()},
                                {"description", entry.factory->describe()},
                                {"path", entry.path},
                                {"configured", !entry.configuration.isEmpty()}});
    }
    return list;
}
