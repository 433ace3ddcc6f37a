#include "databases/sqlite/wal_syncer.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <QDebug>
#include <QFileInfo>
#include <cerrno>
#include <cstring>

namespace sqlite_db {
namespace {

QString errno_text(const char* what, const QString& path) {
    return QString("%1 %2: %3").arg(what, path, QString::fromLocal8Bit(std::strerror(errno)));
}

}  // namespace

wal_syncer::wal_syncer(QString wal_path, QObject* parent) : QObject(parent), m_wal_path(std::move(wal_path)) {
    m_thread = std::thread([this] { run(); });
}

wal_syncer::~wal_syncer() {
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_stop = true;
    }
    m_wake.notify_all();
    m_thread.join();
    if (m_fd >= 0) {
        ::close(m_fd);
    }
}

void wal_syncer::committed(quint64 ticket) {
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (ticket <= m_committed) {
            return;
        }
        m_committed = ticket;
    }
    m_wake.notify_one();
}

bool wal_syncer::wait(quint64 ticket, QString* error) {
    std::unique_lock<std::mutex> lock(m_mutex);
    m_synced.wait(lock, [&] { return durable() >= ticket || !m_failure.isEmpty() || m_stop; });
    if (durable() >= ticket) {
        return true;
    }
    if (error) {
        *error = m_failure.isEmpty() ? QString("the store is closing") : m_failure;
    }
    return false;
}

void wal_syncer::run() {
    std::unique_lock<std::mutex> lock(m_mutex);
    for (;;) {
        m_wake.wait(lock, [this] { return m_stop || m_committed > durable(); });
        if (m_committed <= durable()) {
            return;  // stopping with nothing left to sync
        }
        // Every commit handed so far has written its pages: one sync covers them all.
        const quint64 target = m_committed;
        lock.unlock();
        QString error;
        const bool synced = sync_log(&error);
        lock.lock();
        if (!synced) {
            m_failure = error;
            m_synced.notify_all();
            lock.unlock();
            qCritical().noquote() << "SQLite store: cannot make committed writes durable:" << error;
            Q_EMIT failed(error);
            return;
        }
        m_durable.store(target, std::memory_order_release);
        m_syncs.fetch_add(1, std::memory_order_relaxed);
        m_synced.notify_all();
        lock.unlock();
        Q_EMIT advanced();
        lock.lock();
    }
}

bool wal_syncer::sync_log(QString* error) {
    // The log keeps its file while a connection is open; should it have been replaced
    // all the same, the new one is opened.
    struct stat now {};
    if (::stat(m_wal_path.toLocal8Bit().constData(), &now) != 0) {
        *error = errno_text("cannot find the write-ahead log", m_wal_path);
        return false;
    }
    struct stat open_one {};
    if (m_fd >= 0 && (::fstat(m_fd, &open_one) != 0 || open_one.st_ino != now.st_ino)) {
        ::close(m_fd);
        m_fd = -1;
    }
    if (m_fd < 0) {
        m_fd = ::open(m_wal_path.toLocal8Bit().constData(), O_RDWR | O_CLOEXEC);
        if (m_fd < 0) {
            *error = errno_text("cannot open the write-ahead log", m_wal_path);
            return false;
        }
        // A log created since the directory was last synced must have its entry on the disk.
        const QString dir = QFileInfo(m_wal_path).absolutePath();
        const int dir_fd = ::open(dir.toLocal8Bit().constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        if (dir_fd < 0 || ::fsync(dir_fd) != 0) {
            *error = errno_text("cannot sync the directory", dir);
            if (dir_fd >= 0) {
                ::close(dir_fd);
            }
            return false;
        }
        ::close(dir_fd);
    }
    if (::fdatasync(m_fd) != 0) {
        *error = errno_text("cannot sync the write-ahead log", m_wal_path);
        return false;
    }
    return true;
}

}  // namespace sqlite_db
