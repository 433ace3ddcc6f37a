#pragma once

#include "databases/dummy/memory_data.h"
#include "interfaces/IDriverState.h"

// The downlink-queue sets held in memory.
class memory_queues : public interfaces::IQueueStore {
public:
    explicit memory_queues(memory_data& data) : m_data(data) {}
    // An empty set when the modem has none.
    model::dl_queues load(int modem_id) override;
    void save(int modem_id, const model::dl_queues& queues, int flag) override;

private:
    memory_data& m_data;
};

// Driver state held in memory. A modem "has a state" while its state object is not
// empty. remove() drops the entries and the mark but leaves the downlink queues alone.
// Everything runs on one thread, so lock() only counts per modem and never blocks; a
// nested lock of the same modem is fine.
class memory_state : public interfaces::IDriverState {
public:
    explicit memory_state(memory_data& data) : m_data(data), m_queues(data) {}

    void begin(int modem_id) override;
    void end(int modem_id, int flag) override;
    void remove(int modem_id) override;
    QJsonValue get(int modem_id, const QString& key) override;
    void set(int modem_id, const QString& key, const interfaces::state_value& value) override;
    QJsonObject state(int modem_id) override;
    int mark(int modem_id) override;
    QList<int> modems_with_state() override;
    void save(int modem_id, const QJsonObject& state) override;
    // Exact texts; "*" matches any.
    QList<int> ids(const QString& hw_type, const QString& protocol) override;
    // Modems whose queue set holds at least one queue, ascending; offset below 0 counts
    // as 0, limit 0 (or less) means all.
    int list_modems(QList<int>& out, int offset, int limit) override;
    // Nothing to prepare in memory.
    void prepare(int modem_id) override {}
    void clear_queues() override { m_data.queues.clear(); }
    std::shared_ptr<void> lock(int modem_id) override;
    interfaces::IQueueStore& queues() override { return m_queues; }

private:
    memory_data& m_data;
    memory_queues m_queues;
};
