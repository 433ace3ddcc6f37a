#include "databases/postgres/postgres_plugin.h"

#include "databases/postgres/backend.h"
#include "databases/postgres/eav_db.h"
#include "databases/postgres/messages_db.h"
#include "databases/postgres/pg_config.h"
#include "databases/postgres/registry_db.h"
#include "databases/postgres/state_db.h"

namespace postgres_db {

std::shared_ptr<backend> postgres_factory::shared_backend(const QJsonObject& configuration) {
    const pg_config config = pg_config::from_json(configuration);
    const QString key = config.describe();
    if (auto existing = m_backends[key].lock())
        return existing;
    // Forget stores whose objects have all been released.
    for (auto it = m_backends.begin(); it != m_backends.end();)
        it = it->second.expired() ? m_backends.erase(it) : std::next(it);
    auto db = std::make_shared<backend>(config);
    m_backends[key] = db;
    return db;
}

std::shared_ptr<interfaces::IMessagesDatabase> postgres_factory::create_messages(
    const QJsonObject& configuration, QObject*) {
    return std::make_shared<messages_database>(shared_backend(configuration));
}

std::shared_ptr<interfaces::IEAVDatabase> postgres_factory::create_eav(const QJsonObject& configuration,
                                                                       QObject*) {
    return std::make_shared<eav_database>(shared_backend(configuration));
}

std::shared_ptr<interfaces::IDriverState> postgres_factory::create_state(const QJsonObject& configuration,
                                                                         QObject*) {
    return std::make_shared<state_database>(shared_backend(configuration));
}

std::shared_ptr<interfaces::IDeviceClientsDatabase> postgres_factory::create_clients(
    const QJsonObject& configuration, QObject*) {
    return std::make_shared<clients_database>(shared_backend(configuration));
}

}  // namespace postgres_db
