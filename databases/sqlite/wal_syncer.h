#pragma once

#include <QObject>
#include <QString>
#include <atomic>
#include <condition_variable>
#include <mutex>
#include <thread>

namespace sqlite_db {

// Makes the commits of the event-loop thread's connection durable on a thread of its
// own. That connection commits without syncing (its commit only writes the log's pages
// into the operating system's cache); after each commit it hands its ticket here, and
// one fdatasync() of the write-ahead log covers every commit handed before it began
// (group commit). Each sync that reaches further emits advanced() on the owner's thread.
//
// A failed sync leaves the disk's content unknown: the syncer stops, wait() returns
// false and failed() is emitted; nothing after the last durable ticket may be trusted.
class wal_syncer : public QObject {
    Q_OBJECT
    Q_DISABLE_COPY(wal_syncer)
public:
    // `wal_path` is the database's log ("<file>-wal"); it is opened at the first sync.
    explicit wal_syncer(QString wal_path, QObject* parent = nullptr);
    // Syncs what was handed and not yet synced, then stops the thread.
    ~wal_syncer() override;

    void committed(quint64 ticket);
    quint64 durable() const { return m_durable.load(std::memory_order_acquire); }
    quint64 syncs() const { return m_syncs.load(std::memory_order_relaxed); }
    // Waits until `ticket` is durable; false with `error` set when it cannot be.
    bool wait(quint64 ticket, QString* error);

Q_SIGNALS:
    void advanced();
    void failed(const QString& error);

private:
    void run();
    // One sync of the log; false with `error` set when the disk refused it.
    bool sync_log(QString* error);

    QString m_wal_path;
    int m_fd = -1;
    std::mutex m_mutex;
    std::condition_variable m_wake;
    std::condition_variable m_synced;
    quint64 m_committed = 0;
    std::atomic<quint64> m_durable{0};
    std::atomic<quint64> m_syncs{0};
    QString m_failure;
    bool m_stop = false;
    std::thread m_thread;
};

}  // namespace sqlite_db
