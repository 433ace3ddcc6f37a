#pragma once

#include <memory>

#include "interfaces/IEAVDatabase.h"

namespace postgres_db {

class backend;

// Values (dev_values) and events (dev_events). A list is saved in one transaction, in
// multi-row inserts.
class record_store : public interfaces::IRecordStore {
public:
    explicit record_store(backend& db) : m_db(db) {}
    void save_values(const QList<model::dev_value>& values) override;
    void save_events(const QList<model::dev_event>& events) override;
    void get_values(model::per_modem<model::dev_value>& out, const model::value_query& query) override;
    void get_events(model::per_modem<model::dev_event>& out, const model::value_query& query) override;

private:
    backend& m_db;
};

class eav_database : public interfaces::IEAVDatabase {
public:
    explicit eav_database(std::shared_ptr<postgres_db::backend> db);
    QString backend() const override;
    int purge_expired(int max_rows) override;
    qint64 value_count() override;
    qint64 event_count() override;
    interfaces::IRecordStore& records() override { return m_records; }
    interfaces::IWriteBatch* write_batch() override;

private:
    std::shared_ptr<postgres_db::backend> m_db;
    record_store m_records;
};

// The one-modem value query for tag and OBIS lists of the given sizes (0 = all);
// parameters: modem, from, to, now, limit, then the tag list and the OBIS list when
// present (a list of one as its one text).
QString value_query_sql(bool first_and_last, int tags, int obis_codes);

// Rows per multi-row insert.
inline constexpr int insert_chunk = 2000;

}  // namespace postgres_db
