#include "databases/postgres/backend.h"

#include <QAbstractEventDispatcher>
#include <QCryptographicHash>
#include <QDateTime>
#include <QDebug>
#include <stdexcept>

#include "databases/common/device_seed.h"
#include "databases/postgres/registry_db.h"
#include "databases/postgres/schema.h"

namespace postgres_db {
namespace {

// The first key of the modems' advisory locks: one per schema, so that stores in other
// schemas of the same database never wait for each other.
int lock_space_of(const QString& schema) {
    const QByteArray digest = QCryptographicHash::hash("quillon:" + schema.toUtf8(), QCryptographicHash::Md5);
    return int(quint32(quint8(digest[0])) << 24 | quint32(quint8(digest[1])) << 16 |
               quint32(quint8(digest[2])) << 8 | quint32(quint8(digest[3])));
}

[[noreturn]] void unavailable(const pg_config& config, const QString& why) {
    throw interfaces::store_unavailable(
        QString("PostgreSQL store %1 is unreachable: %2").arg(config.describe(), why).toStdString());
}

}  // namespace

backend::backend(const pg_config& config)
    : m_config(config), m_link(config), m_partitions(config), m_lock_space(lock_space_of(config.schema)) {
    if (m_link.connect_blocking()) {
        try {
            prepare_store();  // a schema that cannot be used ends start-up here
        } catch (const interfaces::store_unavailable& e) {
            // Lost while preparing: prepared again once the link is back.
            qWarning().noquote() << e.what();
        }
    } else {
        qWarning().noquote() << "PostgreSQL store" << m_config.describe()
                             << "cannot be reached at start; waiting for it:" << m_link.error();
    }
    if (m_config.purge_interval_s > 0 && QAbstractEventDispatcher::instance()) {
        m_maintenance.setInterval(m_config.purge_interval_s * 1000);
        connect(&m_maintenance, &QTimer::timeout, this, &backend::maintenance_tick);
        m_maintenance.start();
    }
}

backend::~backend() {
    m_maintenance.stop();
    if (m_batch_open) {
        try {
            commit_batch();
        } catch (const std::exception& e) {
            qWarning() << e.what();
        }
    }
}

void backend::prepare_store() {
    m_preparing = true;
    struct done_flag {
        bool& flag;
        ~done_flag() { flag = false; }
    } done{m_preparing};
    try {
        migrate_schema(m_link, m_config.schema, m_lock_space);
        m_partitions.create_ahead(m_link, QDateTime::currentMSecsSinceEpoch(), m_lock_space);
        seed_devices(*this, db_common::device_seed(QJsonObject{{"devices", m_config.devices}}));
        m_prepared = true;
    } catch (const interfaces::store_unavailable&) {
        throw;
    } catch (const std::runtime_error& e) {
        m_refusal = QString::fromUtf8(e.what());
        throw;
    }
}

interfaces::IStoreLink::link_state backend::poll_link() {
    if (!m_refusal.isEmpty())
        return link_state::down;
    const link_state state = m_link.poll();
    if (state != link_state::up || m_prepared)
        return state;
    try {
        prepare_store();
    } catch (const interfaces::store_unavailable&) {
        return m_link.state();
    } catch (const std::runtime_error&) {
        m_link.drop(m_refusal);
        return link_state::down;
    }
    return link_state::up;
}

QString backend::link_error() const {
    return m_refusal.isEmpty() ? m_link.error() : m_refusal;
}

void backend::check_session_usable() {
    if (m_batch_broken) {
        if (!m_link.up() || m_link.session() != m_transaction_session)
            unavailable(m_config, "the batch was lost with its session (" + m_broken_reason + ")");
        m_link.fail("batch broken",
                    "its transaction was rolled back after an error (" + m_broken_reason + ")");
    }
    if (m_transaction_depth > 0 && (m_transaction_lost || m_link.session() != m_transaction_session))
        unavailable(m_config, "the transaction was lost with its session");
    if (m_link.up() && (m_prepared || m_preparing))
        return;
    // Outside a transaction a new session may be started, without waiting for it.
    if (m_transaction_depth == 0 && !m_batch_open && poll_link() == link_state::up)
        return;
    unavailable(m_config, link_error());
}

void backend::lost_in_transaction() {
    if (m_batch_open && !m_batch_broken) {
        m_batch_broken = true;
        m_broken_reason = m_link.error();
    }
    if (m_transaction_depth > 0)
        m_transaction_lost = true;
}

result backend::run(const QString& sql, const params& values) {
    check_session_usable();
    try {
        return m_link.run(sql, values);
    } catch (const interfaces::store_unavailable&) {
        lost_in_transaction();
        throw;
    }
}

void backend::ensure_partition(const QString& table, qint64 ms) {
    check_session_usable();
    try {
        m_partitions.ensure(m_link, table, ms, m_transaction_depth > 0 || m_batch_open);
    } catch (const interfaces::store_unavailable&) {
        lost_in_transaction();
        throw;
    }
}

void backend::begin_transaction() {
    check_session_usable();
    m_link.run_plain("BEGIN");
    m_transaction_session = m_link.session();
    m_transaction_lost = false;
}

void backend::end_transaction(bool commit) {
    const bool usable = m_link.up() && !m_transaction_lost && m_link.session() == m_transaction_session;
    m_transaction_lost = false;
    if (!usable) {
        m_partitions.rolled_back();
        if (commit)
            unavailable(m_config, "the transaction was lost with its session");
        return;
    }
    // After a failed statement the server only rolls back, whatever COMMIT says.
    const bool failed = m_link.in_failed_transaction();
    const bool committed = commit && !failed;
    try {
        m_link.run_plain(committed ? "COMMIT" : "ROLLBACK");
    } catch (const interfaces::store_unavailable&) {
        m_partitions.rolled_back();
        release_guards_after_transaction();
        throw;
    }
    if (committed)
        m_partitions.committed();
    else
        m_partitions.rolled_back();
    release_guards_after_transaction();
    if (commit && failed)
        m_link.fail("commit failed", "a statement of the transaction failed; nothing of it is stored");
}

backend::transaction::transaction(backend& db)
    : m_db(db), m_outer(db.m_transaction_depth == 0 && !db.m_batch_open) {
    if (m_outer)
        m_db.begin_transaction();
    ++m_db.m_transaction_depth;
}

backend::transaction::~transaction() {
    --m_db.m_transaction_depth;
    if (!m_outer || m_done)
        return;
    try {
        m_db.end_transaction(false);
    } catch (const std::exception& e) {
        qWarning() << "PostgreSQL store rollback failed:" << e.what();
    }
}

void backend::transaction::commit() {
    if (!m_outer || m_done)
        return;
    m_done = true;
    m_db.end_transaction(true);
}

void backend::begin_batch() {
    if (m_batch_open)
        return;
    if (m_transaction_depth > 0)
        m_link.fail("cannot begin a batch", "a transaction is already open");
    begin_transaction();
    m_batch_open = true;
    m_batch_broken = false;
    m_item_depth = 0;
}

void backend::begin_item() {
    // A broken batch has no transaction left to mark.
    if (!m_batch_open || m_batch_broken)
        return;
    try {
        m_link.run_plain(QString("SAVEPOINT item%1").arg(m_item_depth + 1));
        ++m_item_depth;
    } catch (const std::exception& e) {
        m_batch_broken = true;
        m_broken_reason = QString::fromUtf8(e.what());
    }
}

bool backend::end_item(bool keep) {
    if (!m_batch_open || m_batch_broken)
        return !m_batch_broken;
    if (m_item_depth == 0)
        return true;
    const QString name = QString("item%1").arg(m_item_depth);
    --m_item_depth;
    try {
        if (!keep) {
            m_link.run_plain("ROLLBACK TO SAVEPOINT " + name);
            m_partitions.rolled_back();
        }
        m_link.run_plain("RELEASE SAVEPOINT " + name);
    } catch (const std::exception& e) {
        m_broken_reason = QString::fromUtf8(e.what());
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
    const QString reason = m_broken_reason;
    m_batch_open = false;
    m_batch_broken = false;
    m_item_depth = 0;
    if (broken) {
        if (m_link.up() && m_link.session() == m_transaction_session) {
            try {
                end_transaction(false);
            } catch (const std::exception&) {
            }
        } else {
            m_partitions.rolled_back();
            release_guards_after_transaction();
        }
        if (!m_link.up() || m_link.session() != m_transaction_session)
            unavailable(m_config, "the batch was lost with its session (" + reason + ")");
        m_link.fail("batch commit failed", "the transaction was rolled back after an error (" + reason + ")");
    }
    end_transaction(true);
}

std::shared_ptr<void> backend::guard(int modem_id) {
    forget_guards_of_lost_session();
    if (!m_guard_held.count(modem_id)) {
        try {
            run("SELECT pg_advisory_lock($1, $2)", params().add(m_lock_space).add(modem_id));
        } catch (const interfaces::store_unavailable&) {
            throw;
        } catch (const std::runtime_error& e) {
            m_link.fail(QString("guard of modem %1 not taken").arg(modem_id),
                        QString("another session held it for more than lock_timeout (%1 ms): %2")
                            .arg(m_config.lock_timeout_ms)
                            .arg(QString::fromUtf8(e.what())));
        }
        m_guard_held.insert(modem_id);
        m_guard_session = m_link.session();
    }
    ++m_guard_depth[modem_id];
    std::weak_ptr<backend> self = weak_from_this();
    return std::shared_ptr<void>(new int(modem_id), [self, modem_id](void* token) {
        delete static_cast<int*>(token);
        auto db = self.lock();
        if (!db)
            return;
        auto it = db->m_guard_depth.find(modem_id);
        if (it == db->m_guard_depth.end() || --it->second > 0)
            return;
        db->m_guard_depth.erase(it);
        if (db->m_transaction_depth == 0 && !db->m_batch_open)
            db->unlock(modem_id);
    });
}

int backend::guard_depth(int modem_id) const {
    auto it = m_guard_depth.find(modem_id);
    return it == m_guard_depth.end() ? 0 : it->second;
}

void backend::forget_guards_of_lost_session() {
    // The server released every advisory lock of a session that ended.
    if (!m_guard_held.empty() && m_link.session() != m_guard_session)
        m_guard_held.clear();
}

void backend::unlock(int modem_id) {
    forget_guards_of_lost_session();
    if (!m_guard_held.erase(modem_id) || !m_link.up())
        return;
    try {
        m_link.run("SELECT pg_advisory_unlock($1, $2)", params().add(m_lock_space).add(modem_id));
    } catch (const std::exception& e) {
        qWarning() << "PostgreSQL store: guard of modem" << modem_id << "not released:" << e.what();
    }
}

void backend::release_guards_after_transaction() {
    std::vector<int> released;
    for (int modem : m_guard_held)
        if (!m_guard_depth.count(modem))
            released.push_back(modem);
    for (int modem : released)
        unlock(modem);
}

int backend::purge_tables(const QStringList& tables, int max_rows) {
    check_session_usable();
    const qint64 now = QDateTime::currentMSecsSinceEpoch();
    int removed = 0;
    try {
        for (const QString& table : tables) {
            // Dropping takes the table's lock: never inside a transaction of the store.
            if (partitions::partitioned(table) && m_transaction_depth == 0 && !m_batch_open)
                removed += m_partitions.drop_expired(m_link, table, now);
            removed += m_partitions.delete_expired(m_link, table, now, max_rows);
        }
    } catch (const interfaces::store_unavailable&) {
        lost_in_transaction();
        throw;
    }
    return removed;
}

qint64 backend::row_count(const QString& table) {
    // The table name is one of the schema's own.
    return run(QString("SELECT count(*) FROM %1").arg(table)).to_int64(0, 0);
}

void backend::maintenance_tick() {
    // Inside an open transaction the clean-up would join it: it waits for the next tick.
    if (m_transaction_depth > 0 || m_batch_open || !m_link.up() || !m_prepared)
        return;
    // A timer slot must not let an exception into the event loop.
    try {
        m_partitions.create_ahead(m_link, QDateTime::currentMSecsSinceEpoch(), m_lock_space);
        purge_tables(QStringList{"ul_messages", "dl_messages", "dev_values", "dev_events"},
                     m_config.purge_batch);
    } catch (const std::exception& e) {
        qWarning() << "PostgreSQL store clean-up failed:" << e.what();
    }
}

}  // namespace postgres_db
