#pragma once

// Helpers of the PostgreSQL store tests: the plugin's stores on a schema of the test's
// own, a plain libpq session of the test's own, and the private server's controls.

#include <gtest/gtest.h>
#include <libpq-fe.h>

#include <QDateTime>
#include <QElapsedTimer>
#include <QJsonObject>
#include <QProcess>
#include <QString>
#include <QThread>
#include <memory>

#include "databases/postgres/backend.h"
#include "databases/postgres/eav_db.h"
#include "databases/postgres/messages_db.h"
#include "databases/postgres/registry_db.h"
#include "databases/postgres/state_db.h"
#include "tests/support/postgres_server.h"

namespace pg_test {

inline constexpr qint64 T0 = 1700000000;  // 2023-11-14 22:13:20 UTC

inline QDateTime at(qint64 seconds) {
    return QDateTime::fromSecsSinceEpoch(seconds, Qt::UTC);
}

inline QJsonObject config_for(const QString& schema, int lock_timeout_ms = 2000) {
    return QJsonObject{{"conninfo", conninfo()},
                       {"schema", schema},
                       {"purge_interval", 0},
                       {"lock_timeout", lock_timeout_ms},
                       {"connect_timeout", 2}};
}

// The four store objects on one session (one backend), as the plugin makes them.
struct stores {
    std::shared_ptr<postgres_db::backend> db;
    std::shared_ptr<interfaces::IMessagesDatabase> messages;
    std::shared_ptr<interfaces::IEAVDatabase> eav;
    std::shared_ptr<interfaces::IDriverState> state;
    std::shared_ptr<interfaces::IDeviceClientsDatabase> clients;
};

inline stores open_stores(const QJsonObject& config) {
    stores s;
    s.db = std::make_shared<postgres_db::backend>(postgres_db::pg_config::from_json(config));
    s.messages = std::make_shared<postgres_db::messages_database>(s.db);
    s.eav = std::make_shared<postgres_db::eav_database>(s.db);
    s.state = std::make_shared<postgres_db::state_database>(s.db);
    s.clients = std::make_shared<postgres_db::clients_database>(s.db);
    return s;
}

// A session of the test's own (not through the plugin).
class raw_session {
public:
    raw_session() : m_conn(PQconnectdb(conninfo().toUtf8().constData())) {
        EXPECT_EQ(PQstatus(m_conn), CONNECTION_OK) << PQerrorMessage(m_conn);
        exec("SET client_min_messages = warning");
    }
    ~raw_session() { PQfinish(m_conn); }
    raw_session(const raw_session&) = delete;
    raw_session& operator=(const raw_session&) = delete;

    bool exec(const QString& sql) {
        PGresult* r = PQexec(m_conn, sql.toUtf8().constData());
        const bool ok = PQresultStatus(r) == PGRES_COMMAND_OK || PQresultStatus(r) == PGRES_TUPLES_OK;
        EXPECT_TRUE(ok) << sql.toStdString() << ": " << PQresultErrorMessage(r);
        PQclear(r);
        return ok;
    }

    // Every row of a query, its columns joined by "|", rows by ",".
    QString rows(const QString& sql) {
        PGresult* r = PQexec(m_conn, sql.toUtf8().constData());
        EXPECT_EQ(PQresultStatus(r), PGRES_TUPLES_OK) << sql.toStdString() << ": " << PQresultErrorMessage(r);
        QStringList out;
        for (int row = 0; row < PQntuples(r); ++row) {
            QStringList columns;
            for (int c = 0; c < PQnfields(r); ++c)
                columns << QString::fromUtf8(PQgetvalue(r, row, c));
            out << columns.join('|');
        }
        PQclear(r);
        return out.join(',');
    }

private:
    PGconn* m_conn;
};

// Runs scripts/test-postgres with one command; true when it succeeded.
inline bool server(const QString& command) {
    QProcess p;
    p.start(QUILLON_TEST_POSTGRES, {command});
    if (!p.waitForFinished(90000))
        return false;
    EXPECT_EQ(p.exitCode(), 0) << p.readAllStandardError().toStdString();
    return p.exitStatus() == QProcess::NormalExit && p.exitCode() == 0;
}

// Polls the link as the engine does until it is up; false after the time-out.
inline bool wait_for_link(interfaces::IStoreLink& link, int timeout_ms = 20000) {
    QElapsedTimer timer;
    timer.start();
    while (timer.elapsed() < timeout_ms) {
        if (link.poll_link() == interfaces::IStoreLink::link_state::up)
            return true;
        QThread::msleep(50);
    }
    return false;
}

}  // namespace pg_test
