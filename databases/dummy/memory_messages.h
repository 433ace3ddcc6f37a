#pragma once

#include "databases/dummy/memory_data.h"
#include "interfaces/IMessagesDatabase.h"

// The uplink history held in memory.
class memory_uplinks : public interfaces::IUplinkStore {
public:
    explicit memory_uplinks(memory_data& data) : m_data(data) {}
    void save(const model::ul_message& message) override;
    // Range on timestamp, or on time_detected when the query says so; with "fill" "last"
    // the limit keeps the newest records instead of the oldest.
    void get_roll(model::per_modem<model::ul_message>& out, const model::roll_query& query) override;
    QList<int> modems() override;
    void device(std::pair<QString, QString>& out, int modem_id) override;

private:
    memory_data& m_data;
};

// The downlink messages held in memory.
class memory_downlinks : public interfaces::IDownlinkStore {
public:
    explicit memory_downlinks(memory_data& data) : m_data(data) {}
    void save(model::dl_message& message) override;
    model::dl_message get(const QString& db_id) override;
    model::per_modem<model::dl_message> list(const model::dl_query& query) override;
    model::per_modem<model::dl_message> list_not_acked(const model::dl_query& query) override;
    // Throws a QString for an unknown id or a status outside dl_status.
    void set_status(const QString& db_id, int dl_status) override;

private:
    model::dl_message* find(const QString& db_id);
    model::per_modem<model::dl_message> select(const model::dl_query& query, bool not_acked_only) const;

    memory_data& m_data;
};

class memory_messages : public interfaces::IMessagesDatabase {
public:
    explicit memory_messages(memory_data& data) : m_data(data), m_ul(data), m_dl(data) {}
    QString backend() const override { return "memory"; }
    int purge_expired(int max_rows) override;
    // Stored rows, expired ones not yet purged included.
    qint64 uplink_count() override { return static_cast<qint64>(m_data.uplinks.size()); }
    qint64 downlink_count() override { return static_cast<qint64>(m_data.downlinks.size()); }
    interfaces::IUplinkStore& ul() override { return m_ul; }
    interfaces::IDownlinkStore& dl() override { return m_dl; }

private:
    memory_data& m_data;
    memory_uplinks m_ul;
    memory_downlinks m_dl;
};
