#include <QJsonValue>
#include <QStringList>

#include "model/json.h"
#include "model/json_helpers.h"

namespace model {

using namespace json_detail;

QJsonObject to_json(const dev_value& v) {
    QJsonObject o;
    o["value"] = QJsonValue::fromVariant(v.value);
    o["ttl"] = secs(v.ttl);
    o["timestamp"] = secs(v.timestamp);
    o["tag"] = v.tag;
    o["obis_code"] = v.obis_code;
    o["modem_id"] = v.modem_id;
    o["message_id"] = v.message_id;
    return o;
}

QJsonObject to_json(const dev_event& e) {
    QJsonObject o;
    o["event_code"] = e.event_code;
    o["extended_data"] = document_value(e.extended_data);
    o["message"] = e.message;
    o["message_id"] = e.message_id;
    o["modem_id"] = e.modem_id;
    o["parameter"] = e.parameter;
    o["timestamp"] = secs(e.timestamp);
    o["ttl"] = secs(e.ttl);
    return o;
}

QJsonObject to_json(const ul_message& m) {
    QJsonObject o;
    o["unique_id"] = static_cast<qint64>(m.unique_id);
    o["ttl"] = secs(m.ttl);
    o["timestamp"] = secs(m.timestamp);
    o["time_detected"] = secs(m.time_detected);
    o["bs_timezone_offset"] = m.bs_timezone_offset;
    o["tag"] = m.tag;
    o["station_id"] = m.station_id;
    o["snr"] = m.snr;
    o["rssi"] = m.rssi;
    o["protocol"] = m.protocol;
    o["phy"] = m.phy;
    o["parse_status"] = m.parse_status;
    o["modem_id"] = m.modem_id;
    o["hw_type"] = m.hw_type;
    o["extended_data"] = document_value(m.extended_data);
    o["data"] = document_value(m.data);
    o["payload"] = hex(m.payload);
    o["tz_mismatch"] = m.tz_mismatch;
    return o;
}

ul_message ul_message_from_json(const QJsonObject& o) {
    ul_message m;
    m.unique_id = o["unique_id"].toInt(0);
    m.ttl = QDateTime::fromSecsSinceEpoch(secs_of(o["ttl"]), Qt::LocalTime);
    m.timestamp = QDateTime::fromSecsSinceEpoch(secs_of(o["timestamp"]), Qt::LocalTime);
    m.time_detected = QDateTime::fromSecsSinceEpoch(secs_of(o["time_detected"]), Qt::LocalTime);
    m.bs_timezone_offset = o["bs_timezone_offset"].toInt(0);
    m.tag = o["tag"].toString();
    m.station_id = o["station_id"].toInt(0);
    m.snr = o["snr"].toInt(0);
    m.rssi = o["rssi"].toInt(0);
    m.protocol = o["protocol"].toString();
    m.phy = o["phy"].toString();
    m.parse_status = o["parse_status"].toString();
    m.modem_id = o["modem_id"].toInt(0);
    // Read as a number although it is written as text: a stored type name comes back as
    // the single character U+0000. Callers rely on this form; keep it.
    const int hw_code = o["hw_type"].toInt(0);
    m.hw_type = QString(QChar::fromLatin1(static_cast<char>(hw_code & 0xff)));
    m.extended_data = QJsonDocument(o["extended_data"].toObject());
    m.data = QJsonDocument(o["data"].toObject());
    m.payload = from_hex(o["payload"]);
    m.tz_mismatch = o["tz_mismatch"].toBool(false);
    return m;
}

ul_app_message ul_app_message_from_json(const QJsonObject& o) {
    // Keys as Latin-1 views: no string is built to look a member up (read for every uplink).
    ul_app_message m;
    m.dl_mode = o.value(QLatin1String("dl_mode")).toString();
    m.dl_phy = o.value(QLatin1String("dl_phy")).toString();
    m.last_dl_bs = o.value(QLatin1String("last_dl_bs")).toInt(0);
    m.last_dl_bs_aver_busyness = o.value(QLatin1String("last_dl_bs_aver_busyness")).toDouble(0.0);
    m.last_dl_bs_busyness = o.value(QLatin1String("last_dl_bs_busyness")).toDouble(0.0);
    m.last_success_dl_ts = o.value(QLatin1String("last_success_dl_ts")).toInt(0);
    m.modem_id = o.value(QLatin1String("modem_id")).toInt(0);
    m.payload = from_hex(o.value(QLatin1String("payload")));
    m.station_id = o.value(QLatin1String("station_id")).toInt(0);
    m.phy = o.value(QLatin1String("phy")).toString();
    m.rssi = o.value(QLatin1String("rssi")).toInt(0);
    m.snr = o.value(QLatin1String("snr")).toInt(0);
    m.iterator = o.value(QLatin1String("iterator")).toInt(0);
    m.time_detected =
        QDateTime::fromSecsSinceEpoch(o.value(QLatin1String("time_detected")).toInt(0), Qt::UTC);
    m.time_saved = QDateTime::fromSecsSinceEpoch(o.value(QLatin1String("time_saved")).toInt(0), Qt::UTC);
    m.hw_type = o.value(QLatin1String("hw_type")).toString();
    m.protocol = o.value(QLatin1String("protocol")).toString();
    m.bs_tz = o.value(QLatin1String("bs_tz")).toInt(0);
    m.tz_mismatch = o.value(QLatin1String("tz_mismatch")).toBool(false);
    return m;
}

ul_hb_message ul_hb_message_from_json(const QJsonObject& o) {
    ul_hb_message m;
    m.modem_id = o["modem_id"].toInt(0);
    m.payload = from_hex(o["payload"]);
    m.station_id = o["station_id"].toInt(0);
    m.phy = o["phy"].toString();
    m.rssi = o["rssi"].toInt(0);
    m.snr = o["snr"].toInt(0);
    m.iterator = o["iterator"].toInt(0);
    m.time_detected = QDateTime::fromSecsSinceEpoch(o["time_detected"].toInt(0), Qt::UTC);
    m.time_saved = QDateTime::fromSecsSinceEpoch(o["time_saved"].toInt(0), Qt::UTC);
    m.hw_type = o["hw_type"].toString();
    m.protocol = o["protocol"].toString();
    m.bs_tz = o["bs_tz"].toInt(0);
    m.temperature = o["temperature"].toDouble(0.0);
    m.voltage = o["voltage"].toDouble(0.0);
    return m;
}

QJsonObject modem_radio_summary(const QJsonObject& uplink) {
    // In the sorted order of the keys, the order a QJsonObject keeps: each member goes to
    // the end. The content is the same whatever the order of insertion.
    static const QLatin1String members[] = {QLatin1String("bs_tz"),
                                            QLatin1String("dl_mode"),
                                            QLatin1String("dl_phy"),
                                            QLatin1String("hw_type"),
                                            QLatin1String("last_dl_bs"),
                                            QLatin1String("last_dl_bs_aver_busyness"),
                                            QLatin1String("last_dl_bs_busyness"),
                                            QLatin1String("last_success_dl_ts"),
                                            QLatin1String("phy"),
                                            QLatin1String("protocol"),
                                            QLatin1String("rssi"),
                                            QLatin1String("snr"),
                                            QLatin1String("station_id"),
                                            QLatin1String("time_saved")};
    QJsonObject summary;
    // A member missing from the uplink is left out, as assigning undefined would.
    for (const QLatin1String& name : members) {
        const auto found = uplink.constFind(name);
        if (found != uplink.constEnd()) {
            summary.insert(name, found.value());
        }
    }
    return summary;
}

}  // namespace model
