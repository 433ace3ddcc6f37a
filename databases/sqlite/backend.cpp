#include "databases/sqlite/backend.h"

#include <QAbstractEventDispatcher>
#include <QDateTime>
#include <QDebug>
#include <QSqlError>
#include <QSqlQuery>
#include <QUuid>
#include <stdexcept>

#include "databases/sqlite/schema.h"

namespace sqlite_db {
namespace {

// Unique per backend even when two copies of this code (plugin and tool or test) share
// one process and Qt's connection registry.
QString next_connection_name() {
    return "quillon_sqlite_" + QUuid::createUuid().toString(QUuid::WithoutBraces);
}

}  // namespace

backend::backend(const sqlite_config& config) : m_config(config), m_connection(next_connection_name()) {
    try {
        open();
        migrate_schema(*this);
    } catch (...) {
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

    // The first statement reads the file header: a file that is not a database fails here.
    QSqlQuery q(m_db);
    if (!q.exec("PRAGMA journal_mode=WAL") || !q.next())
        fail("cannot open", q.lastError().text());
    const QString mode = q.value(0).toString();
    q.finish();
    if (mode.compare("wal", Qt::CaseInsensitive) != 0)
        fail("cannot open", QString("WAL journal refused (journal mode %1)").arg(mode));
    run_plain(QString("PRAGMA synchronous=%1").arg(m_config.synchronous_full ? "FULL" : "NORMAL"));
    run_plain(QString("PRAGMA busy_timeout=%1").arg(m_config.busy_timeout_ms));
    run_plain(QString("PRAGMA wal_autocheckpoint=%1").arg(m_config.checkpoint_pages));
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
    run_plain("BEGIN IMMEDIATE");
    m_batch_open = true;
    m_transaction_depth = 1;
}

void backend::begin_item() {
    // A broken batch has no transaction left: a savepoint would open a new one.
    if (!m_batch_open || m_batch_broken)
        return;
    run_plain(QString("SAVEPOINT item%1").arg(m_item_depth + 1));
    ++m_item_depth;
}

bool backend::end_item(bool keep) {
    if (!m_batch_open || m_batch_broken)
        return !m_batch_broken;
    if (m_item_depth == 0)
        return true;
    const QString name = QString("item%1").arg(m_item_depth);
    --m_item_depth;
    // These fail when SQLite itself has rolled the whole transaction back after an error
    // (a full disk, an I/O error): then nothing of the batch is stored, which its commit
    // reports.
    QSqlQuery q(m_db);
    if ((!keep && !q.exec("ROLLBACK TO " + name)) || !q.exec("RELEASE " + name)) {
        m_broken_reason = q.lastError().text();
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
    QSqlQuery q(m_db);
    if (!broken && q.exec("COMMIT"))
        return;
    const QString error = broken ? "the transaction was rolled back after an error (" + m_broken_reason + ")"
                                 : q.lastError().text();
    QSqlQuery rollback(m_db);
    rollback.exec("ROLLBACK");
    fail("batch commit failed", error);
}

backend::transaction::transaction(backend& db) : m_db(db), m_outer(db.m_transaction_depth == 0) {
    // IMMEDIATE takes the write lock at once, so a second process waits in the busy
    // handler instead of failing when it upgrades a read lock.
    if (m_outer)
        m_db.run_plain("BEGIN IMMEDIATE");
    ++m_db.m_transaction_depth;
}

backend::transaction::~transaction() {
    --m_db.m_transaction_depth;
    if (!m_outer || m_done)
        return;
    QSqlQuery q(m_db.m_db);
    if (!q.exec("ROLLBACK"))
        qWarning() << "SQLite store" << m_db.m_config.path << "rollback failed:" << q.lastError().text();
}

void backend::transaction::commit() {
    if (!m_outer || m_done)
        return;
    m_db.run_plain("COMMIT");
    m_done = true;
}

}  // namespace sqlite_db
