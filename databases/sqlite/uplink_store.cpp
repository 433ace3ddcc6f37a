#include <QSqlQuery>
#include <algorithm>

#include "databases/sqlite/backend.h"
#include "databases/sqlite/codec.h"
#include "databases/sqlite/messages_db.h"
#include "model/query_bounds.h"

namespace sqlite_db {
namespace {

const QString columns =
    "modem_id, station_id, ttl, timestamp, time_detected, bs_timezone_offset, phy, snr, rssi, tag, unique_id,"
    " data, extended_data, parse_status, hw_type, protocol, payload, tz_mismatch, dl_phy,"
    " last_dl_bs_aver_busyness, last_dl_bs_busyness, iterator";

model::ul_message read_message(const QSqlQuery& q) {
    model::ul_message m;
    m.modem_id = q.value(0).toInt();
    m.station_id = q.value(1).toInt();
    m.ttl = time_from(q.value(2));
    m.timestamp = time_from(q.value(3));
    m.time_detected = time_from(q.value(4));
    m.bs_timezone_offset = q.value(5).toInt();
    m.phy = q.value(6).toString();
    m.snr = q.value(7).toInt();
    m.rssi = q.value(8).toInt();
    m.tag = q.value(9).toString();
    m.unique_id = q.value(10).toLongLong();
    m.data = document_from(q.value(11));
    m.extended_data = document_from(q.value(12));
    m.parse_status = q.value(13).toString();
    m.hw_type = q.value(14).toString();
    m.protocol = q.value(15).toString();
    m.payload = q.value(16).toByteArray();
    m.tz_mismatch = q.value(17).toBool();
    m.dl_phy = q.value(18).toString();
    m.last_dl_bs_aver_busyness = q.value(19).toDouble();
    m.last_dl_bs_busyness = q.value(20).toDouble();
    m.iterator = q.value(21).toInt();
    return m;
}

}  // namespace

QString roll_query_sql(bool time_detected, int tags, bool latest) {
    // The column name, the filter and the direction are fixed texts; every value is bound.
    const char* time_column = time_detected ? "time_detected" : "timestamp";
    const QString tag_filter = tags > 0 ? " AND " + in_filter("tag", "tag", tags) : QString();
    const QString order =
        latest ? QString("%1 DESC, id DESC").arg(time_column) : QString("%1, id").arg(time_column);
    return QString(
               "SELECT %1 FROM ul_messages WHERE modem_id = :modem%3 AND %2 BETWEEN :from AND :to"
               " AND (ttl IS NULL OR ttl > :now) ORDER BY %4 LIMIT :limit")
        .arg(columns, time_column, tag_filter, order);
}

void uplink_store::save(const model::ul_message& m) {
    static const QByteArray sql =
        ("INSERT INTO ul_messages (" + columns +
         ") VALUES (:modem_id, :station_id, :ttl, :timestamp, :time_detected, :bs_timezone_offset, :phy, "
         ":snr,"
         " :rssi, :tag, :unique_id, :data, :extended_data, :parse_status, :hw_type, :protocol, :payload,"
         " :tz_mismatch, :dl_phy, :aver_busyness, :busyness, :iterator)")
            .toUtf8();
    native_statement& q = m_db.native(sql);
    q.bind_int(1, m.modem_id);
    q.bind_int(2, m.station_id);
    q.bind_time(3, m.ttl);
    q.bind_time(4, m.timestamp);
    q.bind_time(5, m.time_detected);
    q.bind_int(6, m.bs_timezone_offset);
    q.bind_text(7, m.phy);
    q.bind_int(8, m.snr);
    q.bind_int(9, m.rssi);
    q.bind_text(10, text_value(m.tag));
    q.bind_int(11, qint64(m.unique_id));
    // The decoded records' text as the driver wrote it, else the document's.
    const QByteArray data = m.data_text.isEmpty() ? document_text(m.data) : m.data_text;
    q.bind_utf8(12, data);
    const QByteArray extended_data = document_text(m.extended_data);
    q.bind_utf8(13, extended_data);
    q.bind_text(14, m.parse_status);
    q.bind_text(15, m.hw_type);
    q.bind_text(16, m.protocol);
    q.bind_blob(17, m.payload);
    q.bind_int(18, m.tz_mismatch ? 1 : 0);
    q.bind_text(19, m.dl_phy);
    q.bind_double(20, m.last_dl_bs_aver_busyness);
    q.bind_double(21, m.last_dl_bs_busyness);
    q.bind_int(22, m.iterator);
    // A single statement outside a transaction is its own committed transaction.
    q.run();
}

void uplink_store::get_roll(model::per_modem<model::ul_message>& out, const model::roll_query& query) {
    // "fill" "last": the newest records, read backwards through the index and turned round.
    const bool latest = query.fill == model::fill_latest;
    QSqlQuery& q = m_db.statement(roll_query_sql(query.time_detected, query.tag.size(), latest));
    const qint64 now = now_ms();
    model::record_budget budget(query.limit);
    for (int modem : model::distinct_modems(query.modem_id)) {
        if (budget.exhausted())
            break;
        q.bindValue(":modem", modem);
        q.bindValue(":from", range_from(query.from));
        q.bindValue(":to", range_to(query.to));
        q.bindValue(":now", now);
        bind_in(q, "tag", query.tag);
        q.bindValue(":limit", budget.next());
        m_db.run(q);
        std::vector<model::ul_message>& list = out[modem];
        const size_t first = list.size();
        while (q.next())
            list.push_back(read_message(q));
        q.finish();
        budget.spend(list.size() - first);
        if (latest) {
            std::reverse(list.begin() + static_cast<std::ptrdiff_t>(first), list.end());
        }
        if (list.empty()) {
            out.erase(modem);
        }
    }
}

QList<int> uplink_store::modems() {
    QSqlQuery& q = m_db.statement(
        "SELECT DISTINCT modem_id FROM ul_messages WHERE ttl IS NULL OR ttl > :now ORDER BY modem_id");
    q.bindValue(":now", now_ms());
    m_db.run(q);
    QList<int> result;
    while (q.next())
        result << q.value(0).toInt();
    q.finish();
    return result;
}

void uplink_store::device(std::pair<QString, QString>& out, int modem_id) {
    QSqlQuery& q = m_db.statement(
        "SELECT protocol, hw_type FROM ul_messages WHERE modem_id = :modem AND (ttl IS NULL OR ttl > :now)"
        " ORDER BY id DESC LIMIT 1");
    q.bindValue(":modem", modem_id);
    q.bindValue(":now", now_ms());
    m_db.run(q);
    out = q.next() ? std::make_pair(q.value(0).toString(), q.value(1).toString())
                   : std::make_pair(QString(), QString());
    q.finish();
}

}  // namespace sqlite_db
