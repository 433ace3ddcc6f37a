#pragma once

#include <QJsonObject>
#include <QList>
#include <QObject>
#include <QPair>
#include <QString>
#include <QtPlugin>
#include <functional>
#include <memory>

#include "interfaces/IDeviceClientsDatabase.h"
#include "interfaces/IDriver.h"
#include "interfaces/IDriverState.h"
#include "interfaces/IEAVDatabase.h"
#include "interfaces/IMessagesDatabase.h"

namespace interfaces {

// (protocol, instance)
using protocol_instance = QPair<QString, QString>;
using dl_sender = std::function<QJsonObject(const model::dl_message&)>;

// Root object of a protocol-driver plugin.
class IDriverFactory {
public:
    virtual ~IDriverFactory() = default;
    // The (protocol, instance) pairs the plugin serves under this configuration. The
    // factory keeps the configuration for the driver it creates.
    virtual QList<protocol_instance> supported(const QJsonObject& configuration) = 0;
    // The plugin's own name, for diagnostics.
    virtual QString name() const = 0;
    // The plugin's description (what it serves, its configuration keys), for diagnostics.
    virtual QJsonObject describe() const = 0;
    virtual void prepare(const protocol_instance& pair, std::shared_ptr<IMessagesDatabase> messages,
                         std::shared_ptr<IEAVDatabase> eav, std::shared_ptr<IDriverState> state,
                         std::shared_ptr<IDeviceClientsDatabase> clients) = 0;
    // ttl_seconds: how long stored data lives (UL_DL_TTL); position: the instance position.
    virtual std::shared_ptr<IDriver> create(const protocol_instance& pair,
                                            std::shared_ptr<IMessagesDatabase> messages,
                                            std::shared_ptr<IEAVDatabase> eav,
                                            std::shared_ptr<IDriverState> state, dl_sender send_dl,
                                            int ttl_seconds, int position) = 0;
};

// Root object of a database plugin. Each call is given the plugin's JSON configuration
// and a parent object; the plugin manager caches what they return.
class IDatabaseFactory {
public:
    virtual ~IDatabaseFactory() = default;
    virtual std::shared_ptr<IMessagesDatabase> create_messages(const QJsonObject& configuration,
                                                               QObject* parent) = 0;
    virtual std::shared_ptr<IEAVDatabase> create_eav(const QJsonObject& configuration, QObject* parent) = 0;
    virtual std::shared_ptr<IDriverState> create_state(const QJsonObject& configuration, QObject* parent) = 0;
    virtual std::shared_ptr<IDeviceClientsDatabase> create_clients(const QJsonObject& configuration,
                                                                   QObject* parent) = 0;
};

}  // namespace interfaces

#define QUILLON_DRIVER_FACTORY_IID "org.quillon.IDriverFactory/1.0"
#define QUILLON_DATABASE_FACTORY_IID "org.quillon.IDatabaseFactory/1.0"
Q_DECLARE_INTERFACE(interfaces::IDriverFactory, QUILLON_DRIVER_FACTORY_IID)
Q_DECLARE_INTERFACE(interfaces::IDatabaseFactory, QUILLON_DATABASE_FACTORY_IID)
