#pragma once

#include <memory>

#include "interfaces/IMessagesDatabase.h"

namespace postgres_db {

class backend;

// The uplink history ("roll") in the table ul_messages.
class uplink_store : public interfaces::IUplinkStore {
public:
    explicit uplink_store(backend& db) : m_db(db) {}
    void save(const model::ul_message& message) override;
    void get_roll(model::per_modem<model::ul_message>& out, const model::roll_query& query) override;
    QList<int> modems() override;
    void device(std::pair<QString, QString>& out, int modem_id) override;

private:
    backend& m_db;
};

// Downlink messages in the table dl_messages; db_id is a fresh UUID text.
class downlink_store : public interfaces::IDownlinkStore {
public:
    explicit downlink_store(backend& db) : m_db(db) {}
    void save(model::dl_message& message) override;
    model::dl_message get(const QString& db_id) override;
    model::per_modem<model::dl_message> list(const model::dl_query& query) override;
    model::per_modem<model::dl_message> list_not_acked(const model::dl_query& query) override;
    void set_status(const QString& db_id, int dl_status) override;

private:
    model::per_modem<model::dl_message> select(const model::dl_query& query, bool not_acked);

    backend& m_db;
};

class messages_database : public interfaces::IMessagesDatabase {
public:
    explicit messages_database(std::shared_ptr<postgres_db::backend> db);
    QString backend() const override;
    int purge_expired(int max_rows) override;
    qint64 uplink_count() override;
    qint64 downlink_count() override;
    interfaces::IUplinkStore& ul() override { return m_ul; }
    interfaces::IDownlinkStore& dl() override { return m_dl; }
    interfaces::IWriteBatch* write_batch() override;
    interfaces::IStoreLink* store_link() override;

private:
    std::shared_ptr<postgres_db::backend> m_db;
    uplink_store m_ul;
    downlink_store m_dl;
};

// The one-modem history query of the uplink store, with or without a tag list, newest
// first when `latest`; parameters: modem, from, to, now, limit, then the tags.
QString roll_query_sql(bool time_detected, bool tags, bool latest = false);

}  // namespace postgres_db
