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
    // The meter link (address and key) of one modem; an empty record when the modem is
    // unknown. Read by the protocol driver for decryption only: nothing it returns may be
    // logged, published or put into a reply. A store overrides this with a lookup of one
    // row; the default reads the whole registry.
    virtual model::meter_link meter_link(int modem_id) {
        const auto all = devices();
        const auto found = all.find(modem_id);
        return found == all.end() ? model::meter_link() : found->second.meter;
    }
    // The back end's batch of writes, when it has one (shared by the objects of one back end).
    virtual IWriteBatch* write_batch() { return nullptr; }
};

}  // namespace interfaces
