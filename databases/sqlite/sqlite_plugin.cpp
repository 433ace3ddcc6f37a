#include "databases/sqlite/sqlite_plugin.h"

#include "databases/common/device_seed.h"
#include "databases/sqlite/backend.h"
#include "databases/sqlite/eav_db.h"
#include "databases/sqlite/messages_db.h"
#include "databases/sqlite/registry_db.h"
#include "databases/sqlite/sqlite_config.h"
#include "databases/sqlite/state_db.h"

namespace sqlite_db {

std::shared_ptr<backend> sqlite_factory::shared_backend(const QJsonObject& configuration) {
    const sqlite_config config = sqlite_config::from_json(configuration);
    if (auto existing = m_backends[config.path].lock())
        return existing;
    // Forget files whose objects have all been released.
    for (auto it = m_backends.begin(); it != m_backends.end();)
        it = it->second.expired() ? m_backends.erase(it) : std::next(it);
    auto db = std::make_shared<backend>(config);
    seed_devices(*db, db_common::device_seed(configuration));
    m_backends[config.path] = db;
    return db;
}

std::shared_ptr<interfaces::IMessagesDatabase> sqlite_factory::create_messages(
    const QJsonObject& configuration, QObject*) {
    return std::make_shared<messages_database>(shared_backend(configuration));
}

std::shared_ptr<interfaces::IEAVDatabase> sqlite_factory::create_eav(const QJsonObject& configuration,
                                                                     QObject*) {
    return std::make_shared<eav_database>(shared_backend(configuration));
}

std::shared_ptr<interfaces::IDriverState> sqlite_factory::create_state(const QJsonObject& configuration,
                                                                       QObject*) {
    return std::make_shared<state_database>(shared_backend(configuration));
}

std::shared_ptr<interfaces::IDeviceClientsDatabase> sqlite_factory::create_clients(
    const QJsonObject& configuration, QObject*) {
    return std::make_shared<clients_database>(shared_backend(configuration));
}

}  // namespace sqlite_db
