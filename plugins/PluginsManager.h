#pragma once

#include <QJsonArray>
#include <QJsonObject>
#include <QList>
#include <QObject>
#include <QString>
#include <memory>

#include "app/config.h"
#include "app/logger.h"
#include "interfaces/factories.h"
#include "plugins/no_devive_type_implemented.h"

// Finds the plugin files in one directory, sorts them into protocol-driver factories
// and one database factory, and hands out the database objects and the driver.
// All loading happens in the constructor.
class PluginsManager {
public:
    struct driver_factory_entry {
        interfaces::IDriverFactory* factory = nullptr;
        QJsonObject configuration;
        QString path;
    };

    PluginsManager(const PMConfig& config, logger& log);
    ~PluginsManager();
    Q_DISABLE_COPY(PluginsManager)

    // Each database object is created on first request and then shared. Without a
    // database plugin they throw std::runtime_error naming DB_NAME.
    std::shared_ptr<interfaces::IDeviceClientsDatabase> clients_database();
    std::shared_ptr<interfaces::IMessagesDatabase> messages_database();
    std::shared_ptr<interfaces::IEAVDatabase> eav_database();
    std::shared_ptr<interfaces::IDriverState> state_database();

    // The driver of the first factory (in load order, configured ones only) serving
    // (PROTOCOL, first INSTANCE_NAME), ignoring case; it gets the cached driver state.
    // Throws no_devive_type_implemented when no factory serves the pair.
    std::shared_ptr<interfaces::IDriver> create_driver(
        std::shared_ptr<interfaces::IMessagesDatabase> messages,
        std::shared_ptr<interfaces::IEAVDatabase> eav, interfaces::dl_sender send_dl, int ttl_seconds,
        int position);

    // Diagnostics.
    bool has_database() const { return m_database_factory != nullptr; }
    const QString& database_plugin_path() const { return m_database_path; }
    const interfaces::IDatabaseFactory* database_factory_instance() const { return m_database_factory; }
    const QJsonObject& database_configuration() const { return m_database_configuration; }
    const QList<driver_factory_entry>& driver_factories() const { return m_driver_factories; }
    // Per driver factory: "name", "description", "path" and "configured".
    QJsonArray describe_driver_factories() const;

private:
    void scan_drivers();
    // Makes the last plugin whose base name contains name_part the database factory.
    void scan_database(const QString& name_part);
    interfaces::IDatabaseFactory& database_factory();

    // Parent handed to the database factory; outlives the cached objects below.
    QObject m_objects_parent;
    QList<driver_factory_entry> m_driver_factories;
    interfaces::IDatabaseFactory* m_database_factory = nullptr;
    std::shared_ptr<interfaces::IDeviceClientsDatabase> m_clients;
    std::shared_ptr<interfaces::IMessagesDatabase> m_messages;
    std::shared_ptr<interfaces::IEAVDatabase> m_eav;
    std::shared_ptr<interfaces::IDriverState> m_state;
    PMConfig m_config;
    QJsonObject m_database_configuration;
    QString m_database_path;
    logger& m_log;
};
