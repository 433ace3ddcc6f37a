#pragma once

#include <map>
#include <memory>

#include "interfaces/IDriverState.h"

namespace postgres_db {

class backend;

// Downlink-queue sets, one JSON document per modem in dl_queue_sets.
class queue_store : public interfaces::IQueueStore {
public:
    explicit queue_store(backend& db) : m_db(db) {}
    model::dl_queues load(int modem_id) override;
    void save(int modem_id, const model::dl_queues& queues, int flag) override;

private:
    backend& m_db;
};

// Driver state: one row per (modem, entry) in state_entries, the mark of end() in
// state_marks. Each call is its own transaction; begin() and end() only count the open
// changes per modem.
class state_database : public interfaces::IDriverState {
public:
    explicit state_database(std::shared_ptr<postgres_db::backend> db);
    void begin(int modem_id) override;
    void end(int modem_id, int flag) override;
    void remove(int modem_id) override;
    QJsonValue get(int modem_id, const QString& key) override;
    void set(int modem_id, const QString& key, const interfaces::state_value& value) override;
    QJsonObject state(int modem_id) override;
    int mark(int modem_id) override;
    QList<int> modems_with_state() override;
    void save(int modem_id, const QJsonObject& state) override;
    QList<int> ids(const QString& hw_type, const QString& protocol) override;
    int list_modems(QList<int>& out, int offset, int limit) override;
    void prepare(int modem_id) override;
    void clear_queues() override;
    // A session advisory lock on the modem, shared with every instance on the same
    // schema; nested guards of one process count up and wait for nothing.
    std::shared_ptr<void> lock(int modem_id) override;
    interfaces::IQueueStore& queues() override { return m_queues; }
    interfaces::IWriteBatch* write_batch() override;

private:
    void put_entry(int modem_id, const QString& key, const QJsonValue& value);

    std::shared_ptr<backend> m_db;
    queue_store m_queues;
    std::map<int, int> m_open_changes;  // begin() without its end(), per modem
};

}  // namespace postgres_db
