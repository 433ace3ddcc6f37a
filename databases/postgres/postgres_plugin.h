#pragma once

#include <QObject>
#include <QString>
#include <map>
#include <memory>

#include "interfaces/factories.h"

namespace postgres_db {

class backend;

// Root object of plug_db_driver_postgres.so. The four database objects created for one
// store (server, database and schema) share one backend, so one session; when all of
// them have been released the session closes.
class postgres_factory : public QObject, public interfaces::IDatabaseFactory {
    Q_OBJECT
    Q_PLUGIN_METADATA(IID QUILLON_DATABASE_FACTORY_IID)
    Q_INTERFACES(interfaces::IDatabaseFactory)
    Q_DISABLE_COPY(postgres_factory)
public:
    postgres_factory() = default;

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

    std::map<QString, std::weak_ptr<backend>> m_backends;  // by store description
};

}  // namespace postgres_db
