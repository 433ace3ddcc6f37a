#pragma once

#include <libpq-fe.h>

#include <QByteArray>
#include <QElapsedTimer>
#include <QString>
#include <functional>
#include <map>

#include "databases/postgres/pg_config.h"
#include "databases/postgres/pg_values.h"
#include "interfaces/IStoreLink.h"

namespace postgres_db {

// The one connection to the server. Runs statements (prepared once per session and
// reused), tells a lost server from a failed statement, and reconnects without waiting:
// after start-up only poll() makes a new connection, step by step.
//
// A failure of the server itself (refused or lost connection, a server shutting down)
// is thrown as interfaces::store_unavailable; any other failure as std::runtime_error
// naming the store and the statement.
class pg_link {
public:
    using link_state = interfaces::IStoreLink::link_state;

    explicit pg_link(const pg_config& config);
    ~pg_link();
    pg_link(const pg_link&) = delete;
    pg_link& operator=(const pg_link&) = delete;

    // Connects and waits (start-up only), bounded by the connect time-out. False when
    // the server could not be reached; error() says why.
    bool connect_blocking();
    // Advances a reconnect without waiting; see IStoreLink::poll_link.
    link_state poll();
    link_state state() const { return m_state; }
    bool up() const { return m_state == link_state::up; }
    // The last failure, without the password.
    QString error() const { return m_error; }
    // Counts the sessions made, so that callers can tell a new session from the old one.
    int session() const { return m_session; }

    // Runs a statement prepared once per session under the given text.
    result run(const QString& sql, const params& values = params());
    // Runs a statement without parameters and without preparing it (DDL, transaction control).
    result run_plain(const QString& sql);

    // A statement of the open transaction failed: only a rollback is possible.
    bool in_failed_transaction() const { return m_conn && PQtransactionStatus(m_conn) == PQTRANS_INERROR; }

    // Marks the link down after a failure that tells the session is gone.
    void drop(const QString& why);

    [[noreturn]] void fail(const QString& what, const QString& detail) const;

private:
    result check(PGresult* r, const QString& sql);
    bool session_gone(PGresult* r) const;
    QString connection_error() const;
    void close();

    pg_config m_config;
    PGconn* m_conn = nullptr;
    link_state m_state = link_state::down;
    QString m_error;
    int m_session = 0;
    QElapsedTimer m_connecting;  // since the current attempt started
    PostgresPollingStatusType m_poll = PGRES_POLLING_WRITING;
    std::map<QString, QByteArray> m_prepared;  // statement text -> name, this session
};

}  // namespace postgres_db
