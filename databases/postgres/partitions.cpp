#include "databases/postgres/partitions.h"

#include <QDateTime>
#include <QDebug>
#include <stdexcept>

#include "databases/postgres/pg_link.h"
#include "databases/postgres/schema.h"

namespace postgres_db {

const QStringList& partitions::tables() {
    static const QStringList names{"ul_messages", "dev_values", "dev_events"};
    return names;
}

QString quoted(const QString& name) {
    return '"' + QString(name).replace('"', "\"\"") + '"';
}

QDate partitions::period_start(qint64 ms) const {
    const QDate day = QDateTime::fromMSecsSinceEpoch(ms, Qt::UTC).date();
    switch (m_config.partition) {
        case partition_unit::day:
            return day;
        case partition_unit::week:
            return day.addDays(1 - day.dayOfWeek());  // Monday
        case partition_unit::month:
            break;
    }
    return QDate(day.year(), day.month(), 1);
}

QDate partitions::next_period(const QDate& start) const {
    switch (m_config.partition) {
        case partition_unit::day:
            return start.addDays(1);
        case partition_unit::week:
            return start.addDays(7);
        case partition_unit::month:
            break;
    }
    return start.addMonths(1);
}

qint64 partitions::ms_of(const QDate& day) {
    return QDateTime(day, QTime(0, 0), Qt::UTC).toMSecsSinceEpoch();
}

void partitions::ensure(pg_link& link, const QString& table, qint64 ms, bool in_transaction) {
    const QDate start = period_start(ms);
    // Times beyond the calendar's plain years go to the default partition.
    if (start.year() < 1900 || start.year() > 9999)
        return;
    if (m_known[table].count(start) || m_pending[table].count(start))
        return;
    create(link, table, start, in_transaction);
}

void partitions::create(pg_link& link, const QString& table, const QDate& start, bool in_transaction) {
    // The bounds are numbers worked out here; DDL takes no parameters.
    const QString sql = QString("CREATE TABLE IF NOT EXISTS %1 PARTITION OF %2 FOR VALUES FROM (%3) TO (%4)")
                            .arg(quoted(table + "_p" + start.toString("yyyyMMdd")), table)
                            .arg(ms_of(start))
                            .arg(ms_of(next_period(start)));
    if (in_transaction)
        link.run_plain("SAVEPOINT quillon_partition");
    try {
        link.run_plain(sql);
        if (in_transaction) {
            link.run_plain("RELEASE SAVEPOINT quillon_partition");
            m_pending[table].insert(start);
        } else {
            m_known[table].insert(start);
        }
    } catch (const interfaces::store_unavailable&) {
        throw;
    } catch (const std::runtime_error& e) {
        // Typically a partition of another period length that overlaps this one: rows
        // of the period go to it (or to the default partition), so it is not tried again.
        qWarning() << "PostgreSQL store: partition of" << table << "from" << start.toString(Qt::ISODate)
                   << "not made:" << e.what();
        if (in_transaction) {
            link.run_plain("ROLLBACK TO SAVEPOINT quillon_partition");
            link.run_plain("RELEASE SAVEPOINT quillon_partition");
        }
        m_known[table].insert(start);
    }
}

void partitions::create_ahead(pg_link& link, qint64 now_ms, int lock_space) {
    link.run_plain("BEGIN");
    try {
        link.run("SELECT pg_advisory_xact_lock($1, $2)", params().add(lock_space).add(schema_lock_key));
        for (const QString& table : tables()) {
            QDate start = period_start(now_ms);
            for (int i = 0; i <= m_config.partitions_ahead; ++i) {
                if (!m_known[table].count(start))
                    create(link, table, start, true);
                start = next_period(start);
            }
        }
        link.run_plain("COMMIT");
    } catch (...) {
        rolled_back();
        if (link.up())
            link.run_plain("ROLLBACK");
        throw;
    }
    committed();
}

void partitions::committed() {
    for (auto& [table, starts] : m_pending)
        m_known[table].insert(starts.begin(), starts.end());
    m_pending.clear();
}

void partitions::rolled_back() {
    // Some may still exist (made before an undone savepoint): making them again is harmless.
    m_pending.clear();
}

std::vector<partitions::partition> partitions::list(pg_link& link, const QString& table) {
    const result r = link.run(
        "SELECT c.relname,"
        " (regexp_match(pg_get_expr(c.relpartbound, c.oid), 'TO \\(''?(-?[0-9]+)''?\\)'))[1]::bigint"
        " FROM pg_inherits i JOIN pg_class c ON c.oid = i.inhrelid"
        " WHERE i.inhparent = to_regclass($1) ORDER BY c.relname",
        params().add(table));
    std::vector<partition> out;
    for (int row = 0; row < r.rows(); ++row)
        out.push_back({r.text(row, 0), !r.is_null(row, 1), r.is_null(row, 1) ? 0 : r.to_int64(row, 1)});
    return out;
}

int partitions::drop_expired(pg_link& link, const QString& table, qint64 now_ms) {
    int dropped_rows = 0;
    for (const partition& p : list(link, table)) {
        if (!p.has_upper || p.upper_ms > now_ms)
            continue;
        const QString name = quoted(p.name);
        // Both tests go through the ttl index.
        const result live = link.run(QString("SELECT EXISTS (SELECT 1 FROM %1 WHERE ttl IS NULL OR ttl > $1),"
                                             " (SELECT reltuples FROM pg_class WHERE oid = to_regclass($2))")
                                         .arg(name),
                                     params().add(now_ms).add(p.name));
        if (live.to_bool(0, 0))
            continue;
        qint64 rows = qint64(live.to_double(0, 1));
        if (rows < 0)  // never analysed: a small table, counted
            rows = link.run(QString("SELECT count(*) FROM %1").arg(name)).to_int64(0, 0);
        try {
            link.run_plain("BEGIN");
            link.run_plain("SET LOCAL lock_timeout = 200");
            link.run_plain("DROP TABLE " + name);
            link.run_plain("COMMIT");
        } catch (const interfaces::store_unavailable&) {
            throw;
        } catch (const std::runtime_error& e) {
            link.run_plain("ROLLBACK");
            qWarning() << "PostgreSQL store: expired partition" << p.name << "not dropped yet:" << e.what();
            continue;
        }
        const QDate start = QDate::fromString(p.name.section("_p", -1), "yyyyMMdd");
        m_known[table].erase(start);
        dropped_rows += int(qMin<qint64>(rows, 1 << 30));
    }
    return dropped_rows;
}

int partitions::delete_expired(pg_link& link, const QString& table, qint64 now_ms, int max_rows) {
    QStringList targets;
    if (partitioned(table)) {
        for (const partition& p : list(link, table))
            targets << p.name;
    } else {
        targets << table;
    }
    int removed = 0;
    for (const QString& target : targets) {
        if (max_rows > 0 && removed >= max_rows)
            break;
        // Row addresses found through the ttl index, deleted by address: no scan, and
        // each batch is short.
        const QString name = quoted(target);
        params values;
        values.add(now_ms);
        if (max_rows > 0)
            values.add(max_rows - removed);
        else
            values.add_null();  // LIMIT NULL: no limit
        const result r = link.run(
            QString("DELETE FROM %1 WHERE ctid = ANY(ARRAY(SELECT ctid FROM %1 WHERE ttl <= $1 LIMIT $2))")
                .arg(name),
            values);
        removed += r.affected();
    }
    return removed;
}

}  // namespace postgres_db
