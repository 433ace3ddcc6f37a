#include "databases/postgres/eav_db.h"

#include <QDateTime>
#include <functional>
#include <set>

#include "databases/postgres/backend.h"
#include "databases/postgres/pg_config.h"
#include "model/query_bounds.h"

namespace postgres_db {
namespace {

const QString value_columns = "modem_id, \"timestamp\", obis_code, tag, value, value_type, message_id, ttl";
const QString event_columns =
    "modem_id, \"timestamp\", event_code, message_id, message, extended_data, parameter, ttl";

// One array literal per column: the rows of a multi-row insert travel as parameters
// and are unnested by the server.
class column_arrays {
public:
    explicit column_arrays(int columns) : m_columns(size_t(columns), QByteArray("{")) {}
    void put(int column, const QByteArray& text, bool is_null = false) {
        append_array_member(m_columns[size_t(column)], text, is_null);
    }
    void put_time(int column, const QDateTime& t) {
        put(column, t.isValid() ? QByteArray::number(t.toMSecsSinceEpoch()) : QByteArray(), !t.isValid());
    }
    params finish() const {
        params values;
        for (const QByteArray& column : m_columns)
            values.add_raw(column + "}");
        return values;
    }

private:
    std::vector<QByteArray> m_columns;
};

// The partitions for the records' times, then the records in chunks, in one transaction.
template <class T>
void insert_all(backend& db, const QString& table, const QList<T>& records, const QString& sql,
                const std::function<void(column_arrays&, const T&)>& put_row, int columns) {
    backend::transaction tx(db);
    std::set<qint64> seen;
    for (const T& r : records)
        if (r.timestamp.isValid() && seen.insert(r.timestamp.toMSecsSinceEpoch() / 86400000).second)
            db.ensure_partition(table, r.timestamp.toMSecsSinceEpoch());
    for (int first = 0; first < records.size(); first += insert_chunk) {
        column_arrays arrays(columns);
        const int last = qMin(records.size(), first + insert_chunk);
        for (int i = first; i < last; ++i)
            put_row(arrays, records[i]);
        db.run(sql, arrays.finish());
    }
    tx.commit();
}

// A list filter: one member is an equality, so that the (modem, column, time) index
// gives the rows in time order and the query stops at the limit; several are "= ANY".
QString list_filter(const char* column, const char* type, int count, int parameter) {
    if (count == 1)
        return QString(" AND %1 = $%2::%3").arg(column).arg(parameter).arg(type);
    return QString(" AND %1 = ANY($%2::%3[])").arg(column).arg(parameter).arg(type);
}

QString filter(int tags, int codes, const char* code_column, const char* code_type) {
    QString text = "modem_id = $1 AND \"timestamp\" BETWEEN $2 AND $3 AND (ttl IS NULL OR ttl > $4)";
    int next = 6;
    if (tags > 0)
        text += list_filter("tag", "text", tags, next++);
    if (codes > 0)
        text += list_filter(code_column, code_type, codes, next++);
    return text;
}

// The event codes an OBIS code list names: its members that are an event code written
// in decimal ("7"; not "07" or "+7"), as the other stores compare them.
QStringList event_codes(const QStringList& obis_codes) {
    QStringList codes;
    for (const QString& text : obis_codes) {
        bool ok = false;
        const int code = text.toInt(&ok, 10);
        if (ok && QString::number(code) == text)
            codes << text;
    }
    return codes;
}

void add_list(params& values, const QStringList& items) {
    if (items.size() == 1)
        values.add(items.front());
    else
        values.add_text_array(items);
}

// Either every matching row, or only the first and the last row of each series, both in
// time order.
QString select_sql(const QString& columns, const QString& table, const QString& where, bool first_and_last,
                   const QString& series) {
    if (!first_and_last)
        return QString("SELECT %1 FROM %2 WHERE %3 ORDER BY \"timestamp\", id LIMIT $5")
            .arg(columns, table, where);
    return QString(
               "SELECT %1 FROM (SELECT %1, id,"
               " row_number() OVER (PARTITION BY %4 ORDER BY \"timestamp\", id) AS first_rank,"
               " row_number() OVER (PARTITION BY %4 ORDER BY \"timestamp\" DESC, id DESC) AS last_rank"
               " FROM %2 WHERE %3) AS ranked WHERE first_rank = 1 OR last_rank = 1"
               " ORDER BY \"timestamp\", id LIMIT $5")
        .arg(columns, table, where, series);
}

QString event_query_sql(bool first_and_last, int codes) {
    // Events have no tag; the OBIS code list selects event codes written in decimal.
    return select_sql(event_columns, "dev_events", filter(0, codes, "event_code", "integer"), first_and_last,
                      "event_code");
}

params query_params(int modem, const model::value_query& query, qint64 now, int limit, bool with_tags) {
    params values;
    values.add(modem)
        .add(qint64(model::range_start_ms(query.from)))
        .add(qint64(model::range_end_ms(query.to)))
        .add(now)
        .add(limit);
    if (with_tags && !query.tag.isEmpty())
        add_list(values, query.tag);
    if (!query.obis_codes.isEmpty())
        add_list(values, query.obis_codes);
    return values;
}

model::dev_value read_value(const result& r, int row) {
    model::dev_value v;
    v.modem_id = r.to_int(row, 0);
    v.timestamp = r.to_time(row, 1);
    v.obis_code = r.text(row, 2);
    v.tag = r.text(row, 3);
    v.value = variant_from(r.text(row, 4), r.is_null(row, 4), r.to_int(row, 5));
    v.message_id = r.text(row, 6);
    v.ttl = r.to_time(row, 7);
    return v;
}

model::dev_event read_event(const result& r, int row) {
    model::dev_event e;
    e.modem_id = r.to_int(row, 0);
    e.timestamp = r.to_time(row, 1);
    e.event_code = r.to_int(row, 2);
    e.message_id = r.text(row, 3);
    e.message = r.text(row, 4);
    e.extended_data = r.to_document(row, 5);
    e.parameter = r.to_int(row, 6);
    e.ttl = r.to_time(row, 7);
    return e;
}

template <class T>
void select_per_modem(backend& db, model::per_modem<T>& out, const model::value_query& query,
                      const QString& sql, bool with_tags, T (*read)(const result&, int)) {
    const qint64 now = QDateTime::currentMSecsSinceEpoch();
    model::record_budget budget(query.limit);
    for (int modem : model::distinct_modems(query.modem_id)) {
        if (budget.exhausted())
            break;
        const result r = db.run(sql, query_params(modem, query, now, budget.next(), with_tags));
        for (int row = 0; row < r.rows(); ++row)
            out[modem].push_back(read(r, row));
        budget.spend(size_t(r.rows()));
    }
}

}  // namespace

QString value_query_sql(bool first_and_last, int tags, int obis_codes) {
    return select_sql(value_columns, "dev_values", filter(tags, obis_codes, "obis_code", "text"),
                      first_and_last, "obis_code");
}

void record_store::save_values(const QList<model::dev_value>& values) {
    if (values.isEmpty())
        return;
    const QString sql = "INSERT INTO dev_values (" + value_columns +
                        ") SELECT * FROM unnest($1::integer[], $2::bigint[], $3::text[], $4::text[],"
                        " $5::text[], $6::integer[], $7::text[], $8::bigint[])";
    insert_all<model::dev_value>(
        m_db, "dev_values", values, sql,
        [](column_arrays& a, const model::dev_value& v) {
            const QByteArray text = variant_text(v.value);
            a.put(0, QByteArray::number(v.modem_id));
            a.put_time(1, v.timestamp);
            a.put(2, v.obis_code.toUtf8());
            a.put(3, v.tag.toUtf8());
            a.put(4, text, !v.value.isValid() || v.value.isNull());
            a.put(5, QByteArray::number(v.value.isValid() ? v.value.userType() : 0));
            a.put(6, v.message_id.toUtf8());
            a.put_time(7, v.ttl);
        },
        8);
}

void record_store::save_events(const QList<model::dev_event>& events) {
    if (events.isEmpty())
        return;
    const QString sql = "INSERT INTO dev_events (" + event_columns +
                        ") SELECT * FROM unnest($1::integer[], $2::bigint[], $3::integer[], $4::text[],"
                        " $5::text[], $6::text[], $7::integer[], $8::bigint[])";
    insert_all<model::dev_event>(
        m_db, "dev_events", events, sql,
        [](column_arrays& a, const model::dev_event& e) {
            a.put(0, QByteArray::number(e.modem_id));
            a.put_time(1, e.timestamp);
            a.put(2, QByteArray::number(e.event_code));
            a.put(3, e.message_id.toUtf8());
            a.put(4, e.message.toUtf8());
            a.put(5, e.extended_data.toJson(QJsonDocument::Compact), e.extended_data.isNull());
            a.put(6, QByteArray::number(e.parameter));
            a.put_time(7, e.ttl);
        },
        8);
}

void record_store::get_values(model::per_modem<model::dev_value>& out, const model::value_query& query) {
    const QString sql = value_query_sql(query.first_and_last, query.tag.size(), query.obis_codes.size());
    select_per_modem<model::dev_value>(m_db, out, query, sql, true, &read_value);
}

void record_store::get_events(model::per_modem<model::dev_event>& out, const model::value_query& query) {
    model::value_query by_code = query;
    by_code.obis_codes = event_codes(query.obis_codes);
    if (by_code.obis_codes.isEmpty() && !query.obis_codes.isEmpty())
        return;  // no listed text is an event code: nothing matches
    const QString sql = event_query_sql(by_code.first_and_last, by_code.obis_codes.size());
    select_per_modem<model::dev_event>(m_db, out, by_code, sql, false, &read_event);
}

eav_database::eav_database(std::shared_ptr<postgres_db::backend> db)
    : m_db(std::move(db)), m_records(*m_db) {}

QString eav_database::backend() const {
    return plugin_name;
}

int eav_database::purge_expired(int max_rows) {
    return m_db->purge_tables({"dev_values", "dev_events"}, max_rows);
}

qint64 eav_database::value_count() {
    return m_db->row_count("dev_values");
}

qint64 eav_database::event_count() {
    return m_db->row_count("dev_events");
}

interfaces::IWriteBatch* eav_database::write_batch() {
    return m_db.get();
}

}  // namespace postgres_db
