#pragma once

#include <QList>
#include <QString>
#include <utility>

#include "interfaces/IStoreLink.h"
#include "interfaces/IWriteBatch.h"
#include "model/queries.h"
#include "model/records.h"

namespace interfaces {

// Stored uplink messages: the message history ("roll").
class IUplinkStore {
public:
    virtual ~IUplinkStore() = default;
    virtual void save(const model::ul_message& message) = 0;
    virtual void get_roll(model::per_modem<model::ul_message>& out, const model::roll_query& query) = 0;
    // Modems that have stored uplinks (for tools and maintenance).
    virtual QList<int> modems() = 0;
    // The (protocol, hw_type) of the last uplink stored for the modem; empty texts if none.
    virtual void device(std::pair<QString, QString>& out, int modem_id) = 0;
};

// Stored downlink messages.
class IDownlinkStore {
public:
    virtual ~IDownlinkStore() = default;
    // Stores the message and assigns it a fresh db_id.
    virtual void save(model::dl_message& message) = 0;
    // Throws a QString such as "dl message <id> not found" for an unknown id.
    virtual model::dl_message get(const QString& db_id) = 0;
    virtual model::per_modem<model::dl_message> list(const model::dl_query& query) = 0;
    // Only messages whose status is below EXECUTED.
    virtual model::per_modem<model::dl_message> list_not_acked(const model::dl_query& query) = 0;
    virtual void set_status(const QString& db_id, int dl_status) = 0;
};

class IMessagesDatabase {
public:
    virtual ~IMessagesDatabase() = default;
    // Name of the back end, for diagnostics.
    virtual QString backend() const = 0;
    // Removes up to max_rows expired rows; returns how many were removed.
    virtual int purge_expired(int max_rows) = 0;
    // Counts of stored uplinks and downlinks, for diagnostics.
    virtual qint64 uplink_count() = 0;
    virtual qint64 downlink_count() = 0;

    virtual IUplinkStore& ul() = 0;
    virtual IDownlinkStore& dl() = 0;
    // The back end's batch of writes, when it has one (shared by the objects of one back end).
    virtual IWriteBatch* write_batch() { return nullptr; }
    // The link to the back end's server, when it has one (shared like the batch).
    virtual IStoreLink* store_link() { return nullptr; }
};

}  // namespace interfaces
