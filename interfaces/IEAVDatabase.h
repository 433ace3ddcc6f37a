#pragma once

#include <QList>
#include <QString>

#include "interfaces/IWriteBatch.h"
#include "model/queries.h"
#include "model/records.h"

namespace interfaces {

// Stored values and events.
class IRecordStore {
public:
    virtual ~IRecordStore() = default;
    virtual void save_values(const QList<model::dev_value>& values) = 0;
    virtual void save_events(const QList<model::dev_event>& events) = 0;
    virtual void get_values(model::per_modem<model::dev_value>& out, const model::value_query& query) = 0;
    virtual void get_events(model::per_modem<model::dev_event>& out, const model::value_query& query) = 0;
};

class IEAVDatabase {
public:
    virtual ~IEAVDatabase() = default;
    virtual QString backend() const = 0;
    virtual int purge_expired(int max_rows) = 0;
    virtual qint64 value_count() = 0;
    virtual qint64 event_count() = 0;

    virtual IRecordStore& records() = 0;
    // The back end's batch of writes, when it has one (shared by the objects of one back end).
    virtual IWriteBatch* write_batch() { return nullptr; }
};

}  // namespace interfaces
