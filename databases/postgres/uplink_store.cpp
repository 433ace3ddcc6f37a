#include <QDateTime>
#include <algorithm>

#include "databases/postgres/backend.h"
#include "databases/postgres/messages_db.h"
#include "model/query_bounds.h"

namespace postgres_db {
namespace {

const QString columns =
    "modem_id, station_id, ttl, \"timestamp\", time_detected, bs_timezone_offset, phy, snr, rssi, tag,"
    " unique_id, data, extended_data, parse_status, hw_type, protocol, payload, tz_mismatch, dl_phy,"
    " last_dl_bs_aver_busyness, last_dl_bs_busyness, iterator";

model::ul_message read_message(const result& r, int row) {
    model::ul_message m;
    m.modem_id = r.to_int(row, 0);
    m.station_id = r.to_int(row, 1);
    m.ttl = r.to_time(row, 2);
    m.timestamp = r.to_time(row, 3);
    m.time_detected = r.to_time(row, 4);
    m.bs_timezone_offset = r.to_int(row, 5);
    m.phy = r.text(row, 6);
    m.snr = r.to_int(row, 7);
    m.rssi = r.to_int(row, 8);
    m.tag = r.text(row, 9);
    m.unique_id = r.to_int64(row, 10);
    m.data = r.to_document(row, 11);
    m.extended_data = r.to_document(row, 12);
    m.parse_status = r.text(row, 13);
    m.hw_type = r.text(row, 14);
    m.protocol = r.text(row, 15);
    m.payload = r.to_bytes(row, 16);
    m.tz_mismatch = r.to_bool(row, 17);
    m.dl_phy = r.text(row, 18);
    m.last_dl_bs_aver_busyness = r.to_double(row, 19);
    m.last_dl_bs_busyness = r.to_double(row, 20);
    m.iterator = r.to_int(row, 21);
    return m;
}

qint64 now_ms() {
    return QDateTime::currentMSecsSinceEpoch();
}

}  // namespace

QString roll_query_sql(bool time_detected, bool tags, bool latest) {
    // The column name, the filter and the direction are fixed texts; every value is a parameter.
    const char* time_column = time_detected ? "time_detected" : "\"timestamp\"";
    const QString tag_filter = tags ? " AND tag = ANY($6::text[])" : QString();
    const QString order =
        latest ? QString("%1 DESC, id DESC").arg(time_column) : QString("%1, id").arg(time_column);
    return QString(
               "SELECT %1 FROM ul_messages WHERE modem_id = $1 AND %2 BETWEEN $2 AND $3"
               " AND (ttl IS NULL OR ttl > $4)%3 ORDER BY %4 LIMIT $5")
        .arg(columns, time_column, tag_filter, order);
}

void uplink_store::save(const model::ul_message& m) {
    if (m.timestamp.isValid())
        m_db.ensure_partition("ul_messages", m.timestamp.toMSecsSinceEpoch());
    params values;
    values.add(int(m.modem_id))
        .add(int(m.station_id))
        .add_time(m.ttl)
        .add_time(m.timestamp)
        .add_time(m.time_detected)
        .add(int(m.bs_timezone_offset))
        .add(m.phy)
        .add(int(m.snr))
        .add(int(m.rssi))
        .add(m.tag)
        .add(qint64(m.unique_id))
        .add_document(m.data, m.data_text)
        .add_document(m.extended_data)
        .add(m.parse_status)
        .add(m.hw_type)
        .add(m.protocol)
        .add_bytes(m.payload)
        .add(m.tz_mismatch)
        .add(m.dl_phy)
        .add(m.last_dl_bs_aver_busyness)
        .add(m.last_dl_bs_busyness)
        .add(int(m.iterator));
    // A single statement outside a transaction is its own committed transaction.
    m_db.run("INSERT INTO ul_messages (" + columns +
                 ") VALUES ($1, $2, $3, $4, $5, $6, $7, $8, $9, $10, $11, $12, $13, $14, $15, $16, $17, $18,"
                 " $19, $20, $21, $22)",
             values);
}

void uplink_store::get_roll(model::per_modem<model::ul_message>& out, const model::roll_query& query) {
    // "fill" "last": the newest records, read backwards through the index and turned round.
    const bool latest = query.fill == model::fill_latest;
    const QString sql = roll_query_sql(query.time_detected, !query.tag.isEmpty(), latest);
    const qint64 now = now_ms();
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
        if (!query.tag.isEmpty())
            values.add_text_array(query.tag);
        const result r = m_db.run(sql, values);
        if (r.rows() == 0)
            continue;
        std::vector<model::ul_message>& list = out[modem];
        for (int row = 0; row < r.rows(); ++row)
            list.push_back(read_message(r, row));
        budget.spend(size_t(r.rows()));
        if (latest)
            std::reverse(list.end() - r.rows(), list.end());
    }
}

QList<int> uplink_store::modems() {
    const result r =
        m_db.run("SELECT DISTINCT modem_id FROM ul_messages WHERE ttl IS NULL OR ttl > $1 ORDER BY modem_id",
                 params().add(now_ms()));
    QList<int> out;
    for (int row = 0; row < r.rows(); ++row)
        out << r.to_int(row, 0);
    return out;
}

void uplink_store::device(std::pair<QString, QString>& out, int modem_id) {
    const result r = m_db.run(
        "SELECT protocol, hw_type FROM ul_messages WHERE modem_id = $1 AND (ttl IS NULL OR ttl > $2)"
        " ORDER BY id DESC LIMIT 1",
        params().add(modem_id).add(now_ms()));
    out = r.rows() > 0 ? std::make_pair(r.text(0, 0), r.text(0, 1)) : std::make_pair(QString(), QString());
}

}  // namespace postgres_db
