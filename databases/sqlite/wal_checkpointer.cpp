#include "databases/sqlite/wal_checkpointer.h"

#include <sqlite3.h>
#include <QDebug>

namespace sqlite_db {

wal_checkpointer::wal_checkpointer(QString db_path, int busy_timeout_ms, int restart_pages)
    : m_db_path(std::move(db_path)), m_busy_timeout_ms(busy_timeout_ms), m_restart_pages(restart_pages) {
    m_thread = std::thread([this] { run(); });
}

wal_checkpointer::~wal_checkpointer() {
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_stop = true;
    }
    m_wake.notify_all();
    m_thread.join();
}

void wal_checkpointer::request(int pages) {
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (pages <= m_requested_pages) {
            return;
        }
        m_requested_pages = pages;
    }
    m_wake.notify_one();
}

void wal_checkpointer::run() {
    sqlite3* db = nullptr;
    if (sqlite3_open_v2(m_db_path.toUtf8().constData(), &db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX,
                        nullptr) != SQLITE_OK) {
        qWarning().noquote() << "SQLite store" << m_db_path
                             << "cannot open a connection for checkpoints:" << sqlite3_errmsg(db);
        sqlite3_close(db);
        db = nullptr;
    } else {
        sqlite3_busy_timeout(db, m_busy_timeout_ms);
        // Its own commits never happen; its checkpoints sync the log before copying it
        // and the file after.
        sqlite3_exec(db, "PRAGMA synchronous=FULL", nullptr, nullptr, nullptr);
    }
    std::unique_lock<std::mutex> lock(m_mutex);
    for (;;) {
        m_wake.wait(lock, [this] { return m_stop || m_requested_pages > 0; });
        if (m_stop) {
            break;
        }
        const int pages = m_requested_pages;
        m_requested_pages = 0;
        lock.unlock();
        if (db) {
            checkpoint(db, m_restart_pages > 0 && pages >= m_restart_pages);
        }
        lock.lock();
    }
    lock.unlock();
    sqlite3_close(db);
}

void wal_checkpointer::checkpoint(sqlite3* db, bool restart) {
    // The log starts again from its beginning only once every page of it is copied:
    // commits made during a copy leave a few pages, which a second, short copy takes.
    constexpr int copies = 3;
    int rc = SQLITE_OK;
    for (int i = 0; i < copies; ++i) {
        int log_pages = 0;
        int copied = 0;
        rc = sqlite3_wal_checkpoint_v2(db, nullptr,
                                       restart ? SQLITE_CHECKPOINT_RESTART : SQLITE_CHECKPOINT_PASSIVE,
                                       &log_pages, &copied);
        if (rc != SQLITE_OK && rc != SQLITE_BUSY) {
            break;
        }
        // Busy: a reader or the writer held the log; the next request tries again.
        m_checkpoints.fetch_add(1, std::memory_order_relaxed);
        m_warned = false;
        if (rc == SQLITE_BUSY || copied >= log_pages || restart) {
            return;
        }
    }
    if (rc == SQLITE_OK || rc == SQLITE_BUSY) {
        return;
    }
    // Copying fails the same way until the disk recovers: said once per spell.
    if (!m_warned) {
        m_warned = true;
        qWarning().noquote() << "SQLite store" << m_db_path << "checkpoint failed:" << sqlite3_errmsg(db);
    }
}

}  // namespace sqlite_db
