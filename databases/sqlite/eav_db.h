#pragma once

#include <memory>
#include <vector>

#include "interfaces/IEAVDatabase.h"

namespace sqlite_db {

class backend;
class native_statement;

// Values (dev_values) and events (dev_events). A list is saved in one transaction.
class record_store : public interfaces::IRecordStore {
public:
    explicit record_store(backend& db) : m_db(db) {}
    void save_values(const QList<model::dev_value>& values) override;
    void save_events(const QList<model::dev_event>& events) override;
    void get_values(model::per_modem<model::dev_value>& out, const model::value_query& query) override;
    void get_events(model::per_modem<model::dev_event>& out, const model::value_query& query) override;

private:
    // The INSERT of `rows` rows into dev_values or dev_events, prepared on first use.
    native_statement& insert(std::vector<native_statement*>& cache, const char* table, const QString& columns,
                             int rows);

    backend& m_db;
    std::vector<native_statement*> m_value_inserts;  // by row count; owned by the backend
    std::vector<native_statement*> m_event_inserts;
};

class eav_database : public interfaces::IEAVDatabase {
public:
    explicit eav_database(std::shared_ptr<sqlite_db::backend> db);
    QString backend() const override;
    int purge_expired(int max_rows) override;
    qint64 value_count() override;
    qint64 event_count() override;
    interfaces::IRecordStore& records() override { return m_records; }
    interfaces::IWriteBatch* write_batch() override;

private:
    std::shared_ptr<sqlite_db::backend> m_db;
    record_store m_records;
};

// The one-modem value query for tag and OBIS lists of the given sizes (0 = all); bound:
// :modem, :from, :to, :now, :limit and the lists (bind_in "tag" and "obis").
QString value_query_sql(bool first_and_last, int tags, int obis_codes);

}  // namespace sqlite_db
