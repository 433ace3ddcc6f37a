#include "databases/sqlite/eav_db.h"

#include <QSqlQuery>

#include "databases/sqlite/backend.h"
#include "databases/sqlite/codec.h"
#include "databases/sqlite/messages_db.h"
#include "databases/sqlite/sqlite_config.h"
#include "model/query_bounds.h"

namespace sqlite_db {
namespace {

const QString value_columns = "modem_id, timestamp, obis_code, tag, value, value_type, message_id, ttl";
const QString event_columns =
    "modem_id, timestamp, event_code, message_id, message, extended_data, parameter, ttl";

// One modem, inclusive time range, live rows; the list filters are added only when a
// list is given, so that the (modem, OBIS code, time) and (modem, tag, time) indexes
// can serve them. Only fixed texts are joined here; every value is bound.
QString filter(int tags, const char* tag_column, int obis_codes, const char* obis_column) {
    QString text = "modem_id = :modem AND timestamp BETWEEN :from AND :to AND (ttl IS NULL OR ttl > :now)";
    if (tags > 0)
        text += " AND " + in_filter(tag_column, "tag", tags);
    if (obis_codes > 0)
        text += " AND " + in_filter(obis_column, "obis", obis_codes);
    return text;
}

// Either every matching row, or only the first and the last row of each series
// (partition), both in time order.
QString select_sql(const QString& columns, const QString& table, const QString& where, bool first_and_last,
                   const QString& partition) {
    if (!first_and_last)
        return QString("SELECT %1 FROM %2 WHERE %3 ORDER BY timestamp, id LIMIT :limit")
            .arg(columns, table, where);
    return QString(
               "SELECT %1 FROM (SELECT %1, id,"
               " ROW_NUMBER() OVER (PARTITION BY %4 ORDER BY timestamp, id) AS first_rank,"
               " ROW_NUMBER() OVER (PARTITION BY %4 ORDER BY timestamp DESC, id DESC) AS last_rank"
               " FROM %2 WHERE %3) WHERE first_rank = 1 OR last_rank = 1 ORDER BY timestamp, id LIMIT :limit")
        .arg(columns, table, where, partition);
}

QString event_query_sql(bool first_and_last, int codes) {
    // Events have no tag; the OBIS code list selects event codes written in decimal.
    return select_sql(event_columns, "dev_events", filter(0, "", codes, "CAST(event_code AS TEXT)"),
                      first_and_last, "event_code");
}

void bind_lists(QSqlQuery& q, const model::value_query& query, bool with_tags) {
    if (with_tags)
        bind_in(q, "tag", query.tag);
    bind_in(q, "obis", query.obis_codes);
}

void bind_common(QSqlQuery& q, int modem, const model::value_query& query, qint64 now, int limit) {
    q.bindValue(":modem", modem);
    q.bindValue(":from", range_from(query.from));
    q.bindValue(":to", range_to(query.to));
    q.bindValue(":now", now);
    q.bindValue(":limit", limit);
}

model::dev_value read_value(const QSqlQuery& q) {
    model::dev_value v;
    v.modem_id = q.value(0).toInt();
    v.timestamp = time_from(q.value(1));
    v.obis_code = q.value(2).toString();
    v.tag = q.value(3).toString();
    v.value = q.value(4);
    const int type = q.value(5).toInt();
    // SQLite keeps integers, reals and text; the stored type restores bools and widths.
    if (type == QMetaType::UnknownType)
        v.value = QVariant();
    else if (v.value.userType() != type)
        v.value.convert(type);
    v.message_id = q.value(6).toString();
    v.ttl = time_from(q.value(7));
    return v;
}

model::dev_event read_event(const QSqlQuery& q) {
    model::dev_event e;
    e.modem_id = q.value(0).toInt();
    e.timestamp = time_from(q.value(1));
    e.event_code = q.value(2).toInt();
    e.message_id = q.value(3).toString();
    e.message = q.value(4).toString();
    e.extended_data = document_from(q.value(5));
    e.parameter = q.value(6).toInt();
    e.ttl = time_from(q.value(7));
    return e;
}

}  // namespace

QString value_query_sql(bool first_and_last, int tags, int obis_codes) {
    return select_sql(value_columns, "dev_values", filter(tags, "tag", obis_codes, "obis_code"),
                      first_and_last, "obis_code");
}

namespace {

// Rows per INSERT: one statement per table for a message's records (eight columns a row
// stays well below SQLite's limit on bound values).
constexpr int rows_per_insert = 100;

QByteArray insert_sql(const char* table, const QString& columns, int rows) {
    QByteArray sql = QByteArray("INSERT INTO ") + table + " (" + columns.toUtf8() + ") VALUES ";
    for (int i = 0; i < rows; ++i) {
        if (i > 0)
            sql += ", ";
        sql += "(?, ?, ?, ?, ?, ?, ?, ?)";
    }
    return sql;
}

}  // namespace

native_statement& record_store::insert(std::vector<native_statement*>& cache, const char* table,
                                       const QString& columns, int rows) {
    if (cache.size() <= size_t(rows))
        cache.resize(size_t(rows) + 1, nullptr);
    native_statement*& cached = cache[size_t(rows)];
    if (!cached)
        cached = &m_db.native(insert_sql(table, columns, rows));
    return *cached;
}

void record_store::save_values(const QList<model::dev_value>& values) {
    if (values.isEmpty())
        return;
    backend::transaction tx(m_db);
    for (int done = 0; done < values.size();) {
        const int count = qMin(rows_per_insert, values.size() - done);
        native_statement& q = insert(m_value_inserts, "dev_values", value_columns, count);
        for (int i = 0; i < count; ++i) {
            const model::dev_value& v = values[done + i];
            const int at = i * 8 + 1;
            q.bind_int(at, v.modem_id);
            q.bind_time(at + 1, v.timestamp);
            q.bind_text(at + 2, text_value(v.obis_code));
            q.bind_text(at + 3, text_value(v.tag));
            q.bind_variant(at + 4, v.value);
            q.bind_int(at + 5, v.value.userType());
            q.bind_text(at + 6, v.message_id);
            q.bind_time(at + 7, v.ttl);
        }
        q.run();
        done += count;
    }
    tx.commit();
}

void record_store::save_events(const QList<model::dev_event>& events) {
    if (events.isEmpty())
        return;
    backend::transaction tx(m_db);
    for (int done = 0; done < events.size();) {
        const int count = qMin(rows_per_insert, events.size() - done);
        native_statement& q = insert(m_event_inserts, "dev_events", event_columns, count);
        // The documents' texts stay alive until the statement has run.
        std::vector<QByteArray> documents(static_cast<size_t>(count));
        for (int i = 0; i < count; ++i) {
            const model::dev_event& e = events[done + i];
            const int at = i * 8 + 1;
            q.bind_int(at, e.modem_id);
            q.bind_time(at + 1, e.timestamp);
            q.bind_int(at + 2, e.event_code);
            q.bind_text(at + 3, e.message_id);
            q.bind_text(at + 4, e.message);
            documents[size_t(i)] = document_text(e.extended_data);
            q.bind_utf8(at + 5, documents[size_t(i)]);
            q.bind_int(at + 6, e.parameter);
            q.bind_time(at + 7, e.ttl);
        }
        q.run();
        done += count;
    }
    tx.commit();
}

void record_store::get_values(model::per_modem<model::dev_value>& out, const model::value_query& query) {
    QSqlQuery& q =
        m_db.statement(value_query_sql(query.first_and_last, query.tag.size(), query.obis_codes.size()));
    const qint64 now = now_ms();
    model::record_budget budget(query.limit);
    for (int modem : model::distinct_modems(query.modem_id)) {
        if (budget.exhausted())
            break;
        bind_common(q, modem, query, now, budget.next());
        bind_lists(q, query, true);
        m_db.run(q);
        size_t count = 0;
        for (; q.next(); ++count)
            out[modem].push_back(read_value(q));
        q.finish();
        budget.spend(count);
    }
}

void record_store::get_events(model::per_modem<model::dev_event>& out, const model::value_query& query) {
    QSqlQuery& q = m_db.statement(event_query_sql(query.first_and_last, query.obis_codes.size()));
    const qint64 now = now_ms();
    model::record_budget budget(query.limit);
    for (int modem : model::distinct_modems(query.modem_id)) {
        if (budget.exhausted())
            break;
        bind_common(q, modem, query, now, budget.next());
        bind_lists(q, query, false);
        m_db.run(q);
        size_t count = 0;
        for (; q.next(); ++count)
            out[modem].push_back(read_event(q));
        q.finish();
        budget.spend(count);
    }
}

eav_database::eav_database(std::shared_ptr<sqlite_db::backend> db) : m_db(std::move(db)), m_records(*m_db) {}

QString eav_database::backend() const {
    return plugin_name;
}

int eav_database::purge_expired(int max_rows) {
    return m_db->purge_tables({"dev_values", "dev_events"}, max_rows);
}

qint64 eav_database::value_count() {
    return row_count(*m_db, "dev_values");
}

qint64 eav_database::event_count() {
    return row_count(*m_db, "dev_events");
}

interfaces::IWriteBatch* eav_database::write_batch() {
    return m_db.get();
}

}  // namespace sqlite_db
