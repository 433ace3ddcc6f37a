#pragma once

#include "databases/dummy/memory_data.h"
#include "interfaces/IEAVDatabase.h"

// Values and events held in memory.
//
// Values are selected by modem, time range on timestamp (inclusive), tag and OBIS code.
// Events have no tag, so the tag list does not apply to them; their OBIS filter matches
// the event code written in decimal. "first_and_last" keeps the first and the last
// record of each series (values: per OBIS code, events: per event code) before the limit
// is applied. "step" and "fill" are not the store's business.
class memory_records : public interfaces::IEAVDatabase, public interfaces::IRecordStore {
public:
    explicit memory_records(memory_data& data) : m_data(data) {}

    QString backend() const override { return "memory"; }
    int purge_expired(int max_rows) override;
    // Stored rows, expired ones not yet purged included.
    qint64 value_count() override { return static_cast<qint64>(m_data.values.size()); }
    qint64 event_count() override { return static_cast<qint64>(m_data.events.size()); }
    interfaces::IRecordStore& records() override { return *this; }

    void save_values(const QList<model::dev_value>& values) override;
    void save_events(const QList<model::dev_event>& events) override;
    void get_values(model::per_modem<model::dev_value>& out, const model::value_query& query) override;
    void get_events(model::per_modem<model::dev_event>& out, const model::value_query& query) override;

private:
    memory_data& m_data;
};
