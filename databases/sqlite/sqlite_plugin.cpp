#include "databases/sqlite/sqlite_plugin.h"

#include <QDebug>
#include <QFileInfo>
#include <QJsonValue>
#include <stdexcept>

#include "databases/common/device_seed.h"
#include "databases/sqlite/backend.h"
#include "databases/sqlite/eav_db.h"
#include "databases/sqlite/messages_db.h"
#include "databases/sqlite/registry_db.h"
#include "databases/sqlite/sqlite_config.h"
#include "databases/sqlite/state_db.h"

namespace sqlite_db {
namespace {

int positive_int(const QJsonObject& o, const char* key, int fallback) {
    const QJsonValue v = o.value(key);
    if (v.isUndefined())
        return fallback;
    if (!v.isDouble() || v.toInt(-1) < 0) {
        qWarning() << "SQLite store: configuration key" << key << "is not a non-negative number; using"
                   << fallback;
        return fallback;
    }
    return v.toInt();
}

}  // namespace

sqlite_config sqlite_config::from_json(const QJsonObject& o) {
    sqlite_config c;
    const QJsonValue path = o.value("path");
    if (path.isString() && !path.toString().isEmpty())
        c.path = path.toString();
    else if (!path.isUndefined())
        qWarning() << "SQLite store: \"path\" is not a file name; using" << c.path;
    c.path = QFileInfo(c.path).absoluteFilePath();

    const QString synchronous = o.value("synchronous").toString("NORMAL").toUpper();
    if (synchronous != "NORMAL" && synchronous != "FULL")
        throw std::runtime_error(QString("SQLite store %1: \"synchronous\" must be \"NORMAL\" or \"FULL\"")
                                     .arg(c.path)
                                     .toStdString());
    c.synchronous_full = synchronous == "FULL";
    c.purge_interval_s = positive_int(o, "purge_interval", c.purge_interval_s);
    c.purge_batch = positive_int(o, "purge_batch", c.purge_batch);
    c.busy_timeout_ms = positive_int(o, "busy_timeout", c.busy_timeout_ms);
    c.devices = o.value("devices").toObject();
    return c;
}

std::shared_ptr<backend> sqlite_factory::shared_backend(const QJsonObject& configuration) {
    const sqlite_config config = sqlite_config::from_json(configuration);
    if (auto existing = m_backends[config.path].lock())
        return existing;
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
