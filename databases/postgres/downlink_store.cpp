#include <QDateTime>
#include <QUuid>

#include "databases/postgres/backend.h"
#include "databases/postgres/messages_db.h"
#include "model/query_bounds.h"

namespace postgres_db {
namespace {

const QString columns =
    "db_id, modem_id, f_ack, f_system, station_id, frequency, dl_phy, timeout, ttl, \"timestamp\", api_key,"
    " user_id, dl_status, data, payload, protocol";

model::dl_message read_message(const result& r, int row) {
    model::dl_message m;
    m.db_id = r.text(row, 0);
    m.modem_id = r.to_int(row, 1);
    m.f_ack = r.to_int(row, 2);
    m.f_system = r.to_int(row, 3);
    m.station_id = r.to_int(row, 4);
    m.frequency = r.to_int(row, 5);
    m.dl_phy = r.to_int(row, 6);
    m.timeout = r.to_int(row, 7);
    m.ttl = r.to_time(row, 8);
    m.timestamp = r.to_time(row, 9);
    m.api_key = r.text(row, 10);
    m.user_id = r.text(row, 11);
    m.dl_status = r.to_int(row, 12);
    m.data = r.to_object(row, 13);
    m.payload = r.to_bytes(row, 14);
    m.protocol = r.text(row, 15);
    return m;
}

QString not_found(const QString& db_id) {
    return QString("dl message %1 not found").arg(db_id);
}

qint64 now_ms() {
    return QDateTime::currentMSecsSinceEpoch();
}

}  // namespace

void downlink_store::save(model::dl_message& m) {
    const QString db_id = QUuid::createUuid().toString(QUuid::WithoutBraces);
    params values;
    values.add(db_id)
        .add(int(m.modem_id))
        .add(int(m.f_ack))
        .add(int(m.f_system))
        .add(int(m.station_id))
        .add(int(m.frequency))
        .add(int(m.dl_phy))
        .add(int(m.timeout))
        .add_time(m.ttl)
        .add_time(m.timestamp)
        .add(m.api_key)
        .add(m.user_id)
        .add(int(m.dl_status))
        .add_object(m.data)
        .add_bytes(m.payload)
        .add(m.protocol);
    m_db.run("INSERT INTO dl_messages (" + columns +
                 ") VALUES ($1, $2, $3, $4, $5, $6, $7, $8, $9, $10, $11, $12, $13, $14, $15, $16)",
             values);
    m.db_id = db_id;
}

model::dl_message downlink_store::get(const QString& db_id) {
    const result r =
        m_db.run("SELECT " + columns + " FROM dl_messages WHERE db_id = $1 AND (ttl IS NULL OR ttl > $2)",
                 params().add(db_id).add(now_ms()));
    if (r.rows() == 0)
        throw not_found(db_id);
    return read_message(r, 0);
}

model::per_modem<model::dl_message> downlink_store::list(const model::dl_query& query) {
    return select(query, false);
}

model::per_modem<model::dl_message> downlink_store::list_not_acked(const model::dl_query& query) {
    return select(query, true);
}

model::per_modem<model::dl_message> downlink_store::select(const model::dl_query& query, bool not_acked) {
    const QString sql = "SELECT " + columns +
                        " FROM dl_messages WHERE modem_id = $1 AND \"timestamp\" BETWEEN $2 AND $3"
                        " AND (ttl IS NULL OR ttl > $4)" +
                        QString(not_acked ? " AND dl_status < $6" : "") +
                        " ORDER BY \"timestamp\", id LIMIT $5";
    const qint64 now = now_ms();
    model::per_modem<model::dl_message> out;
    model::record_budget budget(query.limit);
    for (int modem : model::distinct_modems(query.modem_id)) {
        if (budget.exhausted())
            break;
        params values;
        values.add(modem)
            .add(qint64(model::range_start_ms(query.from)))
            .add(qint64(model::range_end_ms(query.to)))
            .add(now)
            .add(budget.next());
        if (not_acked)
            values.add(int(model::EXECUTED));
        const result r = m_db.run(sql, values);
        for (int row = 0; row < r.rows(); ++row)
            out[modem].push_back(read_message(r, row));
        budget.spend(size_t(r.rows()));
    }
    return out;
}

void downlink_store::set_status(const QString& db_id, int dl_status) {
    // The status is written by name later; only the names of dl_status may be stored.
    if (dl_status < model::PENDING || dl_status > model::TIMEOUT)
        throw QString("dl status %1 of dl message %2 is not valid").arg(dl_status).arg(db_id);
    const result r =
        m_db.run("UPDATE dl_messages SET dl_status = $1 WHERE db_id = $2 AND (ttl IS NULL OR ttl > $3)",
                 params().add(dl_status).add(db_id).add(now_ms()));
    if (r.affected() == 0)
        throw not_found(db_id);
}

}  // namespace postgres_db
