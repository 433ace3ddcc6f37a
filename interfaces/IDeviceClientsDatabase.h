#pragma once

#include <QString>
#include <QStringList>
#include <map>
#include <utility>

#include "interfaces/IWriteBatch.h"
#include "model/queries.h"

namespace interfaces {

// Which client applications follow a modem, and what the modem is.
class IClientStore {
public:
    virtual ~IClientStore() = default;
    // An empty list means publication goes to the client "null".
    virtual QStringList clients(int modem_id) = 0;
    // (protocol, hw_type) as registered; empty texts when the modem is unknown.
    virtual std::pair<QString, QString> device(int modem_id) = 0;
};

class IDeviceClientsDatabase {
public:
    virtual ~IDeviceClientsDatabase() = default;
    // Registry maintenance, used by the operator tools and the "devices" seed.
    virtual void set_device(int modem_id, const model::device_record& device) = 0;
    virtual bool remove_device(int modem_id) = 0;
    virtual std::map<int, model::device_record> devices() = 0;
    virtual QString backend() const = 0;

    virtual IClientStore& clients_store() = 0;
    // The back end's batch of writes, when it has one (shared by the objects of one back end).
    virtual IWriteBatch* write_batch() { return nullptr; }
};

}  // namespace interfaces
