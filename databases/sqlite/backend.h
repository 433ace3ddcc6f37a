#pragma once

#include <QObject>
#include <QSqlDatabase>
#include <QSqlQuery>
#include <QString>
#include <QStringList>
#include <QTimer>
#include <QVariant>
#include <map>
#include <memory>

#include "databases/sqlite/native_statement.h"
#include "databases/sqlite/sqlite_config.h"
#include "interfaces/IDurableCommits.h"
#include "interfaces/IWriteBatch.h"

struct sqlite3;

namespace sqlite_db {

class wal_checkpointer;
class wal_syncer;

// One connection to the database file, shared by the four store objects of the plugin.
// Opens the file in WAL mode, creates or migrates the schema, caches prepared
// statements and purges expired rows in small batches from a timer.
// Every failure is thrown as std::runtime_error naming the file.
//
// Inside a service (a thread with an event loop) the disk work leaves the connection's
// thread: commits only write the log, a syncer thread makes them durable (the
// IDurableCommits tickets) and a checkpointer thread copies the log back into the file.
class backend : public QObject, public interfaces::IWriteBatch, public interfaces::IDurableCommits {
    Q_OBJECT
    Q_DISABLE_COPY(backend)
public:
    explicit backend(const sqlite_config& config);
    ~backend() override;

    const sqlite_config& config() const { return m_config; }
    const QString& connection_name() const { return m_connection; }

    // A statement prepared once per connection and reused; bind, then run().
    QSqlQuery& statement(const QString& sql);
    // Executes a prepared statement and throws with its error text on failure.
    void run(QSqlQuery& query);
    // Executes a statement without values (schema, pragmas).
    void run_plain(const QString& sql);
    // A statement of the write path on SQLite's own handle, prepared once per connection
    // and reused: bind, then run().
    native_statement& native(const QByteArray& sql);

    // Deletes at most max_rows expired rows from each named table (all of them when
    // max_rows is 0 or less); returns the count.
    int purge_tables(const QStringList& tables, int max_rows);
    int purge_all(int max_rows);

    // Transaction of one store call: begun on construction, rolled back unless committed.
    // A scope opened inside another one joins it, so the outer scope commits.
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

    // A batch is the outermost transaction: store calls made while it is open join it.
    // Each item is a savepoint inside it, named by its depth.
    void begin_batch() override;
    void begin_item() override;
    bool end_item(bool keep) override;
    void commit_batch() override;
    bool batch_open() const override { return m_batch_open; }
    // Null unless commits are made durable by the syncer thread.
    interfaces::IDurableCommits* durable_commits() override;

    quint64 commit_ticket() const override { return m_commit_ticket; }
    quint64 durable_ticket() const override;
    void on_durable(std::function<void()> advanced, std::function<void(const QString&)> failed) override;
    bool wait_durable(quint64 ticket) override;
    // Checkpoints run by the checkpointer thread (0 without one).
    quint64 checkpoints() const;

    [[noreturn]] void fail(const QString& what, const QString& detail) const;

private:
    void open();
    void purge_tick();
    void start_disk_threads();
    static int on_wal_commit(void* self, sqlite3* db, const char* name, int pages);

    sqlite_config m_config;
    QString m_connection;
    QSqlDatabase m_db;
    std::map<QString, std::unique_ptr<QSqlQuery>> m_statements;
    sqlite3* m_handle = nullptr;
    std::map<QByteArray, std::unique_ptr<native_statement>> m_native;
    int m_transaction_depth = 0;
    bool m_batch_open = false;
    bool m_batch_broken = false;  // SQLite rolled the batch's transaction back
    QString m_broken_reason;      // what SQLite said when it was found out
    int m_item_depth = 0;
    QTimer m_purge_timer;
    quint64 m_commit_ticket = 0;
    bool m_log_oversized = false;  // the log passed the bound at which this thread copies it
    std::function<void(const QString&)> m_durable_failed;
    std::unique_ptr<wal_syncer> m_syncer;
    std::unique_ptr<wal_checkpointer> m_checkpointer;
};

}  // namespace sqlite_db
