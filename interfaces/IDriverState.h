#pragma once

#include <QByteArray>
#include <QJsonObject>
#include <QJsonValue>
#include <QList>
#include <QString>
#include <memory>
#include <variant>

#include "interfaces/IWriteBatch.h"
#include "model/dl_queues.h"

namespace interfaces {

// A state entry: JSON text (stored parsed when it is valid JSON) or a JSON value.
using state_value = std::variant<QByteArray, QJsonValue>;

// The downlink-queue sets of the modems.
class IQueueStore {
public:
    virtual ~IQueueStore() = default;
    virtual model::dl_queues load(int modem_id) = 0;
    virtual void save(int modem_id, const model::dl_queues& queues, int flag) = 0;
};

// Per-modem state that the driver keeps between messages, and the downlink queues.
// A modem's state is a JSON object of named entries.
class IDriverState {
public:
    virtual ~IDriverState() = default;
    virtual void begin(int modem_id) = 0;
    // Closes a change; flag 0 from the engine, 1 after a reparse reset (kept as the mark).
    virtual void end(int modem_id, int flag) = 0;
    virtual void remove(int modem_id) = 0;
    // One entry of the state; undefined when absent.
    virtual QJsonValue get(int modem_id, const QString& key) = 0;
    virtual void set(int modem_id, const QString& key, const state_value& value) = 0;
    // The whole state; empty when the modem has none.
    virtual QJsonObject state(int modem_id) = 0;
    // The flag last given to end(); 0 when none.
    virtual int mark(int modem_id) = 0;
    // Modems that have a state.
    virtual QList<int> modems_with_state() = 0;
    // Replaces the whole state.
    virtual void save(int modem_id, const QJsonObject& state) = 0;
    // Identifiers of the registered devices of (hw_type, protocol); "*" matches any.
    virtual QList<int> ids(const QString& hw_type, const QString& protocol) = 0;
    // Modems that have downlink queues: a page of them, returning the total count.
    // limit 0 means no limit.
    virtual int list_modems(QList<int>& out, int offset, int limit) = 0;
    // Called before a modem's queues are administered.
    virtual void prepare(int modem_id) = 0;
    // Removes every downlink-queue set (maintenance).
    virtual void clear_queues() = 0;
    // Serialises queue updates of one modem while the returned guard lives.
    virtual std::shared_ptr<void> lock(int modem_id) = 0;
    virtual IQueueStore& queues() = 0;
    // The back end's batch of writes, when it has one (shared by the objects of one back end).
    virtual IWriteBatch* write_batch() { return nullptr; }
};

}  // namespace interfaces
