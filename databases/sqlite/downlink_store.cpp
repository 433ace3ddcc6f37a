#include <QSqlQuery>
#include <QUuid>

#include "databases/sqlite/backend.h"
#include "databases/sqlite/codec.h"
#include "databases/sqlite/messages_db.h"
#include "model/query_bounds.h"

namespace sqlite_db {
namespace {

const QString columns =
    "db_id, modem_id, f_ack, f_system, station_id, frequency, dl_phy, timeout, ttl, timestamp, api_key, "
    "user_id,"
    " dl_status, data, payload, protocol";

model::dl_message read_message(const QSqlQuery& q) {
    model::dl_message m;
    m.db_id = q.value(0).toString();
    m.modem_id = q.value(1).toInt();
    m.f_ack = q.value(2).toInt();
    m.f_system = q.value(3).toInt();
    m.station_id = q.value(4).toInt();
    m.frequency = q.value(5).toInt();
    m.dl_phy = q.value(6).toInt();
    m.timeout = q.value(7).toInt();
    m.ttl = time_from(q.value(8));
    m.timestamp = time_from(q.value(9));
    m.api_key = q.value(10).toString();
    m.user_id = q.value(11).toString();
    m.dl_status = q.value(12).toInt();
    m.data = object_from(q.value(13));
    m.payload = q.value(14).toByteArray();
    m.protocol = q.value(15).toString();
    return m;
}

QString not_found(const QString& db_id) {
    return QString("dl message %1 not found").arg(db_id);
}

}  // namespace

void downlink_store::save(model::dl_message& m) {
    QSqlQuery& q =
        m_db.statement("INSERT INTO dl_messages (" + columns +
                       ") VALUES (:db_id, :modem_id, :f_ack, :f_system, :station_id, :frequency,"
                       " :dl_phy, :timeout, :ttl, :timestamp, :api_key, :user_id, :dl_status, :data,"
                       " :payload, :protocol)");
    const QString db_id = QUuid::createUuid().toString(QUuid::WithoutBraces);
    q.bindValue(":db_id", db_id);
    q.bindValue(":modem_id", m.modem_id);
    q.bindValue(":f_ack", m.f_ack);
    q.bindValue(":f_system", m.f_system);
    q.bindValue(":station_id", m.station_id);
    q.bindValue(":frequency", m.frequency);
    q.bindValue(":dl_phy", m.dl_phy);
    q.bindValue(":timeout", m.timeout);
    q.bindValue(":ttl", time_value(m.ttl));
    q.bindValue(":timestamp", time_value(m.timestamp));
    q.bindValue(":api_key", m.api_key);
    q.bindValue(":user_id", m.user_id);
    q.bindValue(":dl_status", m.dl_status);
    q.bindValue(":data", object_text(m.data));
    q.bindValue(":payload", m.payload);
    q.bindValue(":protocol", m.protocol);
    m_db.run(q);
    m.db_id = db_id;
}

model::dl_message downlink_store::get(const QString& db_id) {
    QSqlQuery& q = m_db.statement("SELECT " + columns +
                                  " FROM dl_messages WHERE db_id = :db_id AND (ttl IS NULL OR ttl > :now)");
    q.bindValue(":db_id", db_id);
    q.bindValue(":now", now_ms());
    m_db.run(q);
    if (!q.next()) {
        q.finish();
        throw not_found(db_id);
    }
    model::dl_message m = read_message(q);
    q.finish();
    return m;
}

model::per_modem<model::dl_message> downlink_store::list(const model::dl_query& query) {
    return select(query, false);
}

model::per_modem<model::dl_message> downlink_store::list_not_acked(const model::dl_query& query) {
    return select(query, true);
}

model::per_modem<model::dl_message> downlink_store::select(const model::dl_query& query, bool not_acked) {
    QSqlQuery& q =
        m_db.statement("SELECT " + columns +
                       " FROM dl_messages WHERE modem_id = :modem AND timestamp BETWEEN :from AND :to"
                       " AND (ttl IS NULL OR ttl > :now) AND (NOT :not_acked OR dl_status < :executed)"
                       " ORDER BY timestamp, id LIMIT :limit");
    const qint64 now = now_ms();
    model::per_modem<model::dl_message> out;
    model::record_budget budget(query.limit);
    for (int modem : model::distinct_modems(query.modem_id)) {
        if (budget.exhausted())
            break;
        q.bindValue(":modem", modem);
        q.bindValue(":from", range_from(query.from));
        q.bindValue(":to", range_to(query.to));
        q.bindValue(":now", now);
        q.bindValue(":not_acked", not_acked);
        q.bindValue(":executed", int(model::EXECUTED));
        q.bindValue(":limit", budget.next());
        m_db.run(q);
        size_t count = 0;
        for (; q.next(); ++count)
            out[modem].push_back(read_message(q));
        q.finish();
        budget.spend(count);
    }
    return out;
}

void downlink_store::set_status(const QString& db_id, int dl_status) {
    // The status is written by name later; only the names of dl_status may be stored.
    if (dl_status < model::PENDING || dl_status > model::TIMEOUT)
        throw QString("dl status %1 of dl message %2 is not valid").arg(dl_status).arg(db_id);
    QSqlQuery& q = m_db.statement(
        "UPDATE dl_messages SET dl_status = :status WHERE db_id = :db_id"
        " AND (ttl IS NULL OR ttl > :now)");
    q.bindValue(":status", dl_status);
    q.bindValue(":db_id", db_id);
    q.bindValue(":now", now_ms());
    m_db.run(q);
    const int changed = q.numRowsAffected();
    q.finish();
    if (changed == 0)
        throw not_found(db_id);
}

}  // namespace sqlite_db
