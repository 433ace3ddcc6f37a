#pragma once

// The private PostgreSQL cluster of scripts/test-postgres, as tests reach it.

#include <QByteArray>
#include <QString>
#include <QUuid>

namespace pg_test {

// QUILLON_TEST_PG_URL when set, else the cluster on QUILLON_TEST_PG_PORT (default 36350)
// as scripts/test-postgres makes it.
inline QString conninfo() {
    const QByteArray url = qgetenv("QUILLON_TEST_PG_URL");
    if (!url.isEmpty())
        return QString::fromUtf8(url);
    const QByteArray port = qgetenv("QUILLON_TEST_PG_PORT");
    return QString("host=127.0.0.1 port=%1 dbname=quillon user=quillon")
        .arg(port.isEmpty() ? QString("36350") : QString::fromUtf8(port));
}

// A schema name of its own for one test, so that tests never see each other's rows.
inline QString unique_schema(const QString& prefix = "t") {
    return prefix + "_" + QUuid::createUuid().toString(QUuid::Id128).left(20);
}

}  // namespace pg_test
