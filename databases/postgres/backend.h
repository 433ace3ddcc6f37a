#pragma once

#include <QObject>
#include <QString>
#include <QStringList>
#include <QTimer>
#include <map>
#include <memory>
#include <set>

#include "databases/postgres/partitions.h"
#include "databases/postgres/pg_config.h"
#include "databases/postgres/pg_link.h"
#include "interfaces/IStoreLink.h"
#include "interfaces/IWriteBatch.h"

namespace postgres_db {

// The store's one session with the server, shared by the four store objects of the
// plugin: statements, transactions and batches, the per-modem guards, the schema and
// its partitions, and the periodic clean-up of expired rows.
//
// When the server cannot be reached every call throws interfaces::store_unavailable and
// nothing is half-written: a transaction or batch that lost its session is reported
// lost, never continued in a new one. A new session is only made by poll_link(), or by
// a store call made outside any transaction while the link is down (both without
// waiting).
class backend : public QObject,
                public interfaces::IWriteBatch,
                public interfaces::IStoreLink,
                public std::enable_shared_from_this<backend> {
    Q_OBJECT
    Q_DISABLE_COPY(backend)
public:
    // Connects (waiting at most the connect time-out) and prepares the schema. A server
    // that cannot be reached leaves the link down; a schema this plugin cannot use throws.
    explicit backend(const pg_config& config);
    ~backend() override;

    const pg_config& config() const { return m_config; }

    result run(const QString& sql, const params& values = params());
    // Adds the partition that will hold a row of this time, when it is missing.
    void ensure_partition(const QString& table, qint64 ms);

    // Transaction of one store call: begun on construction, rolled back unless committed.
    // A scope opened inside another one (or inside a batch) joins it.
    class transaction {
    public:
        explicit transaction(backend& db);
        ~transaction();
        transaction(const transaction&) = delete;
        transaction& operator=(const transaction&) = delete;
        void commit();

    private:
        backend& m_db;
        bool m_outer = false;
        bool m_done = false;
    };

    // The modem's guard: a session advisory lock, waited for at most lock_timeout. A
    // guard released while a transaction or batch is open is held until it ends, so that
    // no other session reads what this one has not committed yet.
    std::shared_ptr<void> guard(int modem_id);
    int guard_depth(int modem_id) const;

    void begin_batch() override;
    void begin_item() override;
    bool end_item(bool keep) override;
    void commit_batch() override;
    bool batch_open() const override { return m_batch_open; }

    link_state poll_link() override;
    QString link_error() const override;

    // Deletes expired rows of the named tables: whole partitions whose rows have all
    // expired, then at most max_rows rows per table (every expired row when 0 or less).
    int purge_tables(const QStringList& tables, int max_rows);
    qint64 row_count(const QString& table);

private:
    // Runs once per process when the first session is up: schema, partitions, seed.
    void prepare_store();
    void begin_transaction();
    void end_transaction(bool commit);
    void release_guards_after_transaction();
    void unlock(int modem_id);
    void forget_guards_of_lost_session();
    void check_session_usable();
    void lost_in_transaction();
    void maintenance_tick();

    pg_config m_config;
    pg_link m_link;
    partitions m_partitions;
    bool m_prepared = false;
    bool m_preparing = false;
    QString m_refusal;  // the schema cannot be used: why
    int m_transaction_depth = 0;
    int m_transaction_session = 0;
    bool m_transaction_lost = false;
    bool m_batch_open = false;
    bool m_batch_broken = false;
    QString m_broken_reason;
    int m_item_depth = 0;
    int m_lock_space = 0;
    std::map<int, int> m_guard_depth;  // nesting of guard() per modem in this process
    std::set<int> m_guard_held;        // modems whose advisory lock this session holds
    int m_guard_session = 0;
    QTimer m_maintenance;
};

}  // namespace postgres_db
