#pragma once

#include <QDate>
#include <QString>
#include <QStringList>
#include <map>
#include <set>
#include <vector>

#include "databases/postgres/pg_config.h"

namespace postgres_db {

class pg_link;

// The time partitions of the tables that grow with time (uplinks, values, events):
// one partition per period of their "timestamp" (a month by default), named
// <table>_p<yyyymmdd> after the period's first day, plus <table>_default for rows
// without a time. Partitions are made ahead of time by the clean-up timer, and on
// demand for a row of a period that has none yet.
class partitions {
public:
    explicit partitions(const pg_config& config) : m_config(config) {}

    static const QStringList& tables();
    static bool partitioned(const QString& table) { return tables().contains(table); }

    // The period holding a time (ms since the epoch) and the one after it.
    QDate period_start(qint64 ms) const;
    QDate next_period(const QDate& start) const;
    static qint64 ms_of(const QDate& day);

    // Makes the partition of the row's period if it is not known to exist. Inside a
    // transaction it is made under a savepoint, so a failure (another session made an
    // overlapping one) leaves the transaction intact; the row then goes where the table
    // puts it.
    void ensure(pg_link& link, const QString& table, qint64 ms, bool in_transaction);
    // The current period and the configured number after it, for every table, in one
    // transaction under the schema lock, so that instances starting together do not
    // race to make the same partitions.
    void create_ahead(pg_link& link, qint64 now_ms, int lock_space);

    // Partitions made inside a transaction exist once it commits.
    void committed();
    void rolled_back();

    // Drops the partitions whose period is over and whose rows have all expired (each
    // drop in a transaction of its own, waiting at most 0.2 s for the table); returns
    // the rows they held. Outside transactions only.
    int drop_expired(pg_link& link, const QString& table, qint64 now_ms);
    // Deletes at most max_rows expired rows (all when 0 or less) from the table or its
    // partitions, through the ttl index; returns the count.
    int delete_expired(pg_link& link, const QString& table, qint64 now_ms, int max_rows);

private:
    struct partition {
        QString name;
        bool has_upper = false;
        qint64 upper_ms = 0;
    };
    std::vector<partition> list(pg_link& link, const QString& table);
    void create(pg_link& link, const QString& table, const QDate& start, bool in_transaction);

    pg_config m_config;
    std::map<QString, std::set<QDate>> m_known;    // table -> period starts known to exist
    std::map<QString, std::set<QDate>> m_pending;  // made in the open transaction
};

// A table or partition name as an SQL identifier.
QString quoted(const QString& name);

}  // namespace postgres_db
