#pragma once

#include <QJsonArray>
#include <QJsonObject>
#include <QObject>
#include <map>
#include <memory>

#include "interfaces/factories.h"

struct memory_database;

// The in-memory database plugin ("db_driver_dummy"): every store operation, kept in
// memory and lost at exit. The four objects created for one parent object share one
// database; another parent gets a fresh, empty one (seeded again from its configuration).
class DummyDatabaseFactory : public QObject, public interfaces::IDatabaseFactory {
    Q_OBJECT
    Q_PLUGIN_METADATA(IID QUILLON_DATABASE_FACTORY_IID)
    Q_INTERFACES(interfaces::IDatabaseFactory)

public:
    DummyDatabaseFactory() = default;
    Q_DISABLE_COPY(DummyDatabaseFactory)

    // What this plugin is, what it serves and the configuration keys it reads.
    static QJsonObject describe() {
        return {
            {"name", "db_driver_dummy"},
            {"serves", QJsonArray{"messages", "eav", "state", "clients"}},
            {"storage", "memory; nothing survives the process"},
            {"configuration", QJsonObject{{"devices",
                                           "optional registry seed: {\"<modem id>\": {\"protocol\": text, "
                                           "\"hw_type\": text, \"clients\": [text, ...]}}"}}}};
    }

    std::shared_ptr<interfaces::IMessagesDatabase> create_messages(const QJsonObject& configuration,
                                                                   QObject* parent) override;
    std::shared_ptr<interfaces::IEAVDatabase> create_eav(const QJsonObject& configuration,
                                                         QObject* parent) override;
    std::shared_ptr<interfaces::IDriverState> create_state(const QJsonObject& configuration,
                                                           QObject* parent) override;
    std::shared_ptr<interfaces::IDeviceClientsDatabase> create_clients(const QJsonObject& configuration,
                                                                       QObject* parent) override;

private:
    std::shared_ptr<memory_database> database(const QJsonObject& configuration, QObject* parent);

    // The live database of each parent object.
    std::map<const QObject*, std::weak_ptr<memory_database>> m_databases;
};
