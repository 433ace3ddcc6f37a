#pragma once

#include <QString>
#include <atomic>
#include <condition_variable>
#include <mutex>
#include <thread>

struct sqlite3;

namespace sqlite_db {

// Copies the write-ahead log back into the database file on a thread and connection of
// its own, so the event-loop thread never waits for the copy and its two syncs. A
// passive checkpoint takes no lock that the event-loop thread's commits wait for; once
// it has copied the whole log, the next commit starts the log again from its beginning.
// Should the log keep growing all the same (the copy never catches up with a steady
// stream of commits), a restarting checkpoint waits for the writer once and resets it.
class wal_checkpointer {
public:
    wal_checkpointer(QString db_path, int busy_timeout_ms, int restart_pages);
    ~wal_checkpointer();
    wal_checkpointer(const wal_checkpointer&) = delete;
    wal_checkpointer& operator=(const wal_checkpointer&) = delete;

    // The log holds `pages` pages: copy them back (a request while one runs is merged).
    void request(int pages);
    quint64 checkpoints() const { return m_checkpoints.load(std::memory_order_relaxed); }

private:
    void run();
    void checkpoint(sqlite3* db, bool restart);

    QString m_db_path;
    int m_busy_timeout_ms = 0;
    int m_restart_pages = 0;
    std::mutex m_mutex;
    std::condition_variable m_wake;
    int m_requested_pages = 0;  // 0: nothing requested
    bool m_stop = false;
    bool m_warned = false;
    std::atomic<quint64> m_checkpoints{0};
    std::thread m_thread;
};

}  // namespace sqlite_db
