#pragma once

#include <QObject>
#include <QString>
#include <map>
#include <memory>

#include "interfaces/factories.h"

namespace sqlite_db {

class backend;
struct sqlite_config;

// Root object of plug_db_driver_sqlite.so. The four database objects created for one
// database file share one backend (one connection); when every object of a file has
// been released the connection closes, and the next request opens the file anew.
class sqlite_factory : public QObject, public interfaces::IDatabaseFactory {
    Q_OBJECT
    Q_PLUGIN_METADATA(IID QUILLON_DATABASE_FACTORY_IID)
    Q_INTERFACES(interfaces::IDatabaseFactory)
    Q_DISABLE_COPY(sqlite_factory)
public:
    sqlite_factory() = default;

    std::shared_ptr<interfaces::IMessagesDatabase> create_messages(const QJsonObject& configuration,
                                                                   QObject* parent) override;
    std::shared_ptr<interfaces::IEAVDatabase> create_eav(const QJsonObject& configuration,
                                                         QObject* parent) override;
    std::shared_ptr<interfaces::IDriverState> create_state(const QJsonObject& configuration,
                                                           QObject* parent) override;
    std::shared_ptr<interfaces::IDeviceClientsDatabase> create_clients(const QJsonObject& configuration,
                                                                       QObject* parent) override;

private:
    std::shared_ptr<backend> shared_backend(const QJsonObject& configuration);

    std::map<QString, std::weak_ptr<backend>> m_backends;  // by absolute file path
};

}  // namespace sqlite_db
