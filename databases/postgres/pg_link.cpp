#include "databases/postgres/pg_link.h"

#include <poll.h>

#include <QDebug>
#include <stdexcept>
#include <vector>

namespace postgres_db {
namespace {

// SQLSTATEs that say the session is gone, not that the statement was wrong: connection
// exceptions (class 08) and a server shutting down or starting.
bool server_gone_state(const char* state) {
    if (!state)
        return false;
    const QByteArray s(state);
    return s.startsWith("08") || s == "57P01" || s == "57P02" || s == "57P03";
}

QString message_of(const char* text) {
    return QString::fromUtf8(text ? text : "").trimmed();
}

// Null-terminated keyword and value arrays for libpq, kept alive with their texts.
struct connect_arrays {
    explicit connect_arrays(const pg_config& config) {
        for (const auto& [key, value] : config.parameters) {
            keys.push_back(key.constData());
            values.push_back(value.constData());
        }
        keys.push_back(nullptr);
        values.push_back(nullptr);
    }
    std::vector<const char*> keys;
    std::vector<const char*> values;
};

}  // namespace

pg_link::pg_link(const pg_config& config) : m_config(config) {}

pg_link::~pg_link() {
    close();
}

void pg_link::close() {
    if (m_conn)
        PQfinish(m_conn);
    m_conn = nullptr;
    m_prepared.clear();
}

QString pg_link::connection_error() const {
    return m_conn ? message_of(PQerrorMessage(m_conn)) : QString("out of memory");
}

void pg_link::fail(const QString& what, const QString& detail) const {
    throw std::runtime_error(
        QString("PostgreSQL store %1: %2: %3").arg(m_config.describe(), what, detail).toStdString());
}

bool pg_link::connect_blocking() {
    close();
    const connect_arrays arrays(m_config);
    m_conn = PQconnectdbParams(arrays.keys.data(), arrays.values.data(), 0);
    if (!m_conn || PQstatus(m_conn) != CONNECTION_OK) {
        m_error = connection_error();
        close();
        m_state = link_state::down;
        return false;
    }
    m_state = link_state::up;
    ++m_session;
    return true;
}

pg_link::link_state pg_link::poll() {
    if (m_state == link_state::up)
        return m_state;
    if (m_state == link_state::down) {
        close();
        const connect_arrays arrays(m_config);
        m_conn = PQconnectStartParams(arrays.keys.data(), arrays.values.data(), 0);
        if (!m_conn || PQstatus(m_conn) == CONNECTION_BAD) {
            m_error = connection_error();
            close();
            return m_state;
        }
        m_state = link_state::connecting;
        m_poll = PGRES_POLLING_WRITING;
        m_connecting.start();
    }
    // Each step runs only when the socket is ready, so none of them waits.
    for (int step = 0; step < 16; ++step) {
        pollfd fd{PQsocket(m_conn), short(m_poll == PGRES_POLLING_READING ? POLLIN : POLLOUT), 0};
        if (fd.fd < 0 || ::poll(&fd, 1, 0) == 0) {
            if (m_connecting.elapsed() > qint64(m_config.connect_timeout_s) * 1000) {
                m_error = QString("no connection within %1 s").arg(m_config.connect_timeout_s);
                close();
                m_state = link_state::down;
            }
            return m_state;
        }
        m_poll = PQconnectPoll(m_conn);
        if (m_poll == PGRES_POLLING_OK) {
            m_state = link_state::up;
            ++m_session;
            return m_state;
        }
        if (m_poll == PGRES_POLLING_FAILED) {
            m_error = connection_error();
            close();
            m_state = link_state::down;
            return m_state;
        }
    }
    return m_state;
}

void pg_link::drop(const QString& why) {
    if (m_state == link_state::up)
        qWarning().noquote() << "PostgreSQL store" << m_config.describe() << "lost its connection:" << why;
    m_error = why;
    close();
    m_state = link_state::down;
}

bool pg_link::session_gone(PGresult* r) const {
    if (!m_conn || PQstatus(m_conn) == CONNECTION_BAD)
        return true;
    return r && server_gone_state(PQresultErrorField(r, PG_DIAG_SQLSTATE));
}

result pg_link::check(PGresult* r, const QString& sql) {
    const ExecStatusType status = r ? PQresultStatus(r) : PGRES_FATAL_ERROR;
    if (status == PGRES_COMMAND_OK || status == PGRES_TUPLES_OK)
        return result(r);
    const QString text = r ? message_of(PQresultErrorMessage(r)) : connection_error();
    const bool gone = session_gone(r);
    PQclear(r);
    if (gone) {
        drop(text.isEmpty() ? connection_error() : text);
        throw interfaces::store_unavailable(QString("PostgreSQL store %1 is unreachable: %2")
                                                .arg(m_config.describe(), m_error)
                                                .toStdString());
    }
    fail("statement failed", text + " in: " + sql);
}

result pg_link::run(const QString& sql, const params& values) {
    if (m_state != link_state::up)
        throw interfaces::store_unavailable(QString("PostgreSQL store %1 is unreachable: %2")
                                                .arg(m_config.describe(), m_error)
                                                .toStdString());
    auto it = m_prepared.find(sql);
    if (it == m_prepared.end()) {
        const QByteArray name = "quillon_" + QByteArray::number(qulonglong(m_prepared.size() + 1));
        check(PQprepare(m_conn, name.constData(), sql.toUtf8().constData(), 0, nullptr), sql);
        it = m_prepared.emplace(sql, name).first;
    }
    return check(
        PQexecPrepared(m_conn, it->second.constData(), values.count(), values.values(), nullptr, nullptr, 0),
        sql);
}

result pg_link::run_plain(const QString& sql) {
    if (m_state != link_state::up)
        throw interfaces::store_unavailable(QString("PostgreSQL store %1 is unreachable: %2")
                                                .arg(m_config.describe(), m_error)
                                                .toStdString());
    return check(PQexec(m_conn, sql.toUtf8().constData()), sql);
}

}  // namespace postgres_db
