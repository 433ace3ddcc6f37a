#include "databases/sqlite/backend.h"

#include <sqlite3.h>
#include <QAbstractEventDispatcher>
#include <QDateTime>
#include <QDebug>
#include <QSqlDriver>
#include <QSqlError>
#include <QSqlQuery>
#include <QUuid>
#include <stdexcept>

#include "databases/sqlite/schema.h"
#include "databases/sqlite/wal_checkpointer.h"
#include "databases/sqlite/wal_syncer.h"

namespace sqlite_db {
namespace {

// Unique per backend even when two copies of this code (plugin and tool or test) share
// one process and Qt's connection registry.
QString next_connection_name() {
    return "quillon_sqlite_" + QUuid::createUuid().toString(QUuid::WithoutBraces);
}

// The log grows past the checkpoint size while a checkpoint copies it; at this many
// times that size the checkpointer resets it.
constexpr int restart_factor = 8;
// Should the checkpointer thread still not catch up (starved of CPU while commits go on),
// at this many times the size this thread copies the log itself, once: a bound, rare.
constexpr int emergency_factor = 16;
constexpr int page_bytes = 4096;

sqlite3* native_handle(const QSqlDatabase& db) {
    const QVariant handle = db.driver()->handle();
    if (!handle.isValid() || qstrcmp(handle.typeName(), "sqlite3*") != 0) {
        return nullptr;
    }
    return *static_cast<sqlite3* const*>(handle.data());
}

}  // namespace

backend::backend(const sqlite_config& config) : m_config(config), m_connection(next_connection_name()) {
    try {
        open();
        migrate_schema(*this);
    } catch (...) {
        m_native.clear();
        m_statements.clear();
        m_db.close();
        m_db = QSqlDatabase();
        QSqlDatabase::removeDatabase(m_connection);
        throw;
    }
    // The periodic clean-up needs an event loop; without one (a tool that only
    // edits the registry) purge_expired() is still there to call.
    if (m_config.purge_interval_s > 0 && QAbstractEventDispatcher::instance()) {
        m_purge_timer.setInterval(m_config.purge_interval_s * 1000);
        connect(&m_purge_timer, &QTimer::timeout, this, &backend::purge_tick);
        m_purge_timer.start();
    }
}

// Only where an event loop runs: a tool without one syncs and checkpoints on its own
// thread, as SQLite does by default.
void backend::start_disk_threads() {
    sqlite3* handle = m_handle;
    if (m_config.synchronous_full)
        m_syncer = std::make_unique<wal_syncer>(m_config.path + "-wal");
    if (m_config.checkpoint_pages > 0) {
        m_checkpointer = std::make_unique<wal_checkpointer>(m_config.path, m_config.busy_timeout_ms,
                                                            m_config.checkpoint_pages * restart_factor);
        // A reset log keeps at most twice the checkpoint size of its file.
        run_plain(
            QString("PRAGMA journal_size_limit=%1").arg(qint64(m_config.checkpoint_pages) * 2 * page_bytes));
    }
    // Replaces SQLite's own automatic checkpoint, which would run on this thread.
    sqlite3_wal_hook(handle, &backend::on_wal_commit, this);
}

int backend::on_wal_commit(void* self, sqlite3* handle, const char*, int pages) {
    auto* db = static_cast<backend*>(self);
    ++db->m_commit_ticket;
    if (db->m_syncer)
        db->m_syncer->committed(db->m_commit_ticket);
    if (db->m_checkpointer && pages >= db->m_config.checkpoint_pages)
        db->m_checkpointer->request(pages);
    const bool oversized = db->m_checkpointer && pages >= db->m_config.checkpoint_pages * emergency_factor;
    if (oversized) {
        // Said once per spell; the copy is tried after each commit until it succeeds.
        if (!db->m_log_oversized)
            qWarning().noquote() << "SQLite store" << db->m_config.path << "write-ahead log at" << pages
                                 << "pages: copied back on the service's thread";
        sqlite3_wal_checkpoint_v2(handle, nullptr, SQLITE_CHECKPOINT_RESTART, nullptr, nullptr);
    }
    db->m_log_oversized = oversized;
    return SQLITE_OK;
}

interfaces::IDurableCommits* backend::durable_commits() {
    return m_syncer ? this : nullptr;
}

quint64 backend::durable_ticket() const {
    return m_syncer ? m_syncer->durable() : m_commit_ticket;
}

quint64 backend::checkpoints() const {
    return m_checkpointer ? m_checkpointer->checkpoints() : 0;
}

void backend::on_durable(std::function<void()> advanced, std::function<void(const QString&)> failed) {
    m_durable_failed = std::move(failed);
    if (!m_syncer)
        return;
    disconnect(m_syncer.get(), nullptr, this, nullptr);
    if (!advanced)
        return;  // the listener is gone
    connect(m_syncer.get(), &wal_syncer::advanced, this, std::move(advanced), Qt::QueuedConnection);
    connect(
        m_syncer.get(), &wal_syncer::failed, this,
        [this](const QString& error) {
            if (m_durable_failed)
                m_durable_failed(error);
        },
        Qt::QueuedConnection);
}

bool backend::wait_durable(quint64 ticket) {
    QString error;
    if (!m_syncer || m_syncer->wait(ticket, &error))
        return true;
    if (m_durable_failed)
        m_durable_failed(error);
    return false;
}

backend::~backend() {
    m_purge_timer.stop();
    if (m_batch_open) {
        try {
            commit_batch();
        } catch (const std::exception& e) {
            qWarning() << e.what();
        }
    } else if (m_transaction_depth > 0) {
        qWarning() << "SQLite store" << m_config.path << "closed inside a transaction; rolled back";
    }
    // The syncer syncs what is committed before it stops; both go before the connection.
    m_checkpointer.reset();
    m_syncer.reset();
    m_native.clear();
    m_statements.clear();
    m_db.close();
    m_db = QSqlDatabase();
    QSqlDatabase::removeDatabase(m_connection);
}

void backend::fail(const QString& what, const QString& detail) const {
    throw std::runtime_error(
        QString("SQLite store %1: %2: %3").arg(m_config.path, what, detail).toStdString());
}

void backend::open() {
    if (!QSqlDatabase::isDriverAvailable("QSQLITE"))
        fail("cannot open", "the Qt SQL driver QSQLITE is not installed");
    m_db = QSqlDatabase::addDatabase("QSQLITE", m_connection);
    m_db.setDatabaseName(m_config.path);
    if (!m_db.open())
        fail("cannot open", m_db.lastError().text());
    m_handle = native_handle(m_db);
    if (!m_handle)
        fail("cannot open", "the Qt SQL driver gives no SQLite handle");

    // The first statement reads the file header: a file that is not a database fails here.
    QSqlQuery q(m_db);
    if (!q.exec("PRAGMA journal_mode=WAL") || !q.next())
        fail("cannot open", q.lastError().text());
    const QString mode = q.value(0).toString();
    q.finish();
    if (mode.compare("wal", Qt::CaseInsensitive) != 0)
        fail("cannot open", QString("WAL journal refused (journal mode %1)").arg(mode));
    // With an event loop the commits do not sync here: the syncer thread does, and
    // nothing that speaks of a commit leaves before (see IDurableCommits).
    const bool disk_threads = QAbstractEventDispatcher::instance() != nullptr;
    const bool sync_here = m_config.synchronous_full && !disk_threads;
    run_plain(QString("PRAGMA synchronous=%1").arg(sync_here ? "FULL" : "NORMAL"));
    run_plain(QString("PRAGMA busy_timeout=%1").arg(m_config.busy_timeout_ms));
    // A burst's units are savepoints; their journal of original pages (a few MiB at
    // most for a burst) stays in memory instead of a temporary file opened, written
    // and unlinked per burst.
    run_plain("PRAGMA temp_store=MEMORY");
    run_plain(QString("PRAGMA wal_autocheckpoint=%1").arg(disk_threads ? 0 : m_config.checkpoint_pages));
    if (disk_threads)
        start_disk_threads();
    if (m_config.max_page_count > 0)
        run_plain(QString("PRAGMA max_page_count=%1").arg(m_config.max_page_count));
}

QSqlQuery& backend::statement(const QString& sql) {
    auto it = m_statements.find(sql);
    if (it != m_statements.end())
        return *it->second;
    auto query = std::make_unique<QSqlQuery>(m_db);
    if (!query->prepare(sql))
        fail("cannot prepare", query->lastError().text() + " in: " + sql);
    return *m_statements.emplace(sql, std::move(query)).first->second;
}

void backend::run(QSqlQuery& query) {
    if (!query.exec()) {
        const QString error = query.lastError().text();
        query.finish();
        fail("statement failed", error + " in: " + query.lastQuery());
    }
}

native_statement& backend::native(const QByteArray& sql) {
    auto it = m_native.find(sql);
    if (it != m_native.end())
        return *it->second;
    auto made = std::make_unique<native_statement>(
        m_handle, sql, [this](const QString& what, const QString& detail) { fail(what, detail); });
    return *m_native.emplace(sql, std::move(made)).first->second;
}

void backend::run_plain(const QString& sql) {
    QSqlQuery q(m_db);
    if (!q.exec(sql))
        fail("statement failed", q.lastError().text() + " in: " + sql);
}

int backend::purge_tables(const QStringList& tables, int max_rows) {
    const qint64 now = QDateTime::currentMSecsSinceEpoch();
    int removed = 0;
    for (const QString& table : tables) {
        // Table names come from the fixed schema list only; the values are bound.
        QSqlQuery& q =
            statement(QString("DELETE FROM %1 WHERE id IN (SELECT id FROM %1 WHERE ttl IS NOT NULL "
                              "AND ttl <= :now ORDER BY ttl LIMIT :n)")
                          .arg(table));
        q.bindValue(":now", now);
        q.bindValue(":n", max_rows > 0 ? max_rows : -1);  // 0 or less: every expired row
        run(q);
        removed += q.numRowsAffected();
        q.finish();
    }
    return removed;
}

int backend::purge_all(int max_rows) {
    QStringList tables;
    for (const char* t : expiring_tables)
        tables << t;
    return purge_tables(tables, max_rows);
}

void backend::purge_tick() {
    // Inside an open transaction the clean-up would join it: it waits for the next tick.
    if (m_transaction_depth > 0)
        return;
    // A timer slot must not let an exception into the event loop.
    try {
        purge_all(m_config.purge_batch);
    } catch (const std::exception& e) {
        qWarning() << "SQLite store clean-up failed:" << e.what();
    }
}

void backend::begin_batch() {
    if (m_batch_open)
        return;
    if (m_transaction_depth > 0)
        fail("cannot begin a batch", "a transaction is already open");
    native("BEGIN IMMEDIATE").run();
    m_batch_open = true;
    m_transaction_depth = 1;
}

void backend::begin_item() {
    // A broken batch has no transaction left: a savepoint would open a new one.
    if (!m_batch_open || m_batch_broken)
        return;
    native("SAVEPOINT item" + QByteArray::number(m_item_depth + 1)).run();
    ++m_item_depth;
}

bool backend::end_item(bool keep) {
    if (!m_batch_open || m_batch_broken)
        return !m_batch_broken;
    if (m_item_depth == 0)
        return true;
    const QByteArray name = "item" + QByteArray::number(m_item_depth);
    --m_item_depth;
    // These fail when SQLite itself has rolled the whole transaction back after an error
    // (a full disk, an I/O error): then nothing of the batch is stored, which its commit
    // reports.
    QString error;
    if ((!keep && !native("ROLLBACK TO " + name).try_run(&error)) ||
        !native("RELEASE " + name).try_run(&error)) {
        m_broken_reason = error;
        m_batch_broken = true;
        m_item_depth = 0;
        return false;
    }
    return true;
}

void backend::commit_batch() {
    if (!m_batch_open)
        return;
    const bool broken = m_batch_broken;
    m_batch_open = false;
    m_batch_broken = false;
    m_item_depth = 0;
    m_transaction_depth = 0;
    QString commit_error;
    if (!broken && native("COMMIT").try_run(&commit_error))
        return;
    const QString error =
        broken ? "the transaction was rolled back after an error (" + m_broken_reason + ")" : commit_error;
    native("ROLLBACK").try_run(nullptr);
    fail("batch commit failed", error);
}

backend::transaction::transaction(backend& db) : m_db(db), m_outer(db.m_transaction_depth == 0) {
    // IMMEDIATE takes the write lock at once, so a second process waits in the busy
    // handler instead of failing when it upgrades a read lock.
    if (m_outer)
        m_db.native("BEGIN IMMEDIATE").run();
    ++m_db.m_transaction_depth;
}

backend::transaction::~transaction() {
    --m_db.m_transaction_depth;
    if (!m_outer || m_done)
        return;
    QString error;
    if (!m_db.native("ROLLBACK").try_run(&error))
        qWarning() << "SQLite store" << m_db.m_config.path << "rollback failed:" << error;
}

void backend::transaction::commit() {
    if (!m_outer || m_done)
        return;
    m_db.native("COMMIT").run();
    m_done = true;
}

}  // namespace sqlite_db
