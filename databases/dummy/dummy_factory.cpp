#include "databases/dummy/dummy_factory.h"

#include "databases/common/device_seed.h"
#include "databases/dummy/memory_database.h"

std::shared_ptr<memory_database> DummyDatabaseFactory::database(const QJsonObject& configuration,
                                                                QObject* parent) {
    auto [it, inserted] = m_databases.try_emplace(parent);
    if (auto existing = it->second.lock()) {
        return existing;
    }
    auto created = std::make_shared<memory_database>(db_common::device_seed(configuration));
    it->second = created;
    if (inserted && parent) {
        // A later object at the same address must not find this database.
        connect(parent, &QObject::destroyed, this, [this, parent] { m_databases.erase(parent); });
    }
    return created;
}

std::shared_ptr<interfaces::IMessagesDatabase> DummyDatabaseFactory::create_messages(
    const QJsonObject& configuration, QObject* parent) {
    auto db = database(configuration, parent);
    return std::shared_ptr<interfaces::IMessagesDatabase>(db, &db->messages);
}

std::shared_ptr<interfaces::IEAVDatabase> DummyDatabaseFactory::create_eav(const QJsonObject& configuration,
                                                                           QObject* parent) {
    auto db = database(configuration, parent);
    return std::shared_ptr<interfaces::IEAVDatabase>(db, &db->records);
}

std::shared_ptr<interfaces::IDriverState> DummyDatabaseFactory::create_state(const QJsonObject& configuration,
                                                                             QObject* parent) {
    auto db = database(configuration, parent);
    return std::shared_ptr<interfaces::IDriverState>(db, &db->state);
}

std::shared_ptr<interfaces::IDeviceClientsDatabase> DummyDatabaseFactory::create_clients(
    const QJsonObject& configuration, QObject* parent) {
    auto db = database(configuration, parent);
    return std::shared_ptr<interfaces::IDeviceClientsDatabase>(db, &db->clients);
}
