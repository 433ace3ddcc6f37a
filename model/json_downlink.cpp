#include <QJsonValue>
#include <array>

#include "model/json.h"
#include "model/json_helpers.h"

namespace model {

using namespace json_detail;

QString dl_status_name(int status) {
    static const std::array<const char*, 4> names = {"PENDING", "WAIT_DATA", "EXECUTED", "TIMEOUT"};
    // Only 0..3 are ever stored; anything else gets no name rather than a read past the table.
    if (status < 0 || status >= static_cast<int>(names.size()))
        return QString();
    return QString::fromLatin1(names[static_cast<size_t>(status)]);
}

QJsonObject to_json(const dl_message& m) {
    QJsonObject o;
    o["frequency"] = m.frequency;
    o["dl_phy"] = m.dl_phy;
    o["station_id"] = m.station_id;
    o["f_system"] = m.f_system;
    o["data"] = m.data;
    o["db_id"] = m.db_id;
    o["f_ack"] = m.f_ack;
    o["modem_id"] = m.modem_id;
    o["api_key"] = m.api_key;
    o["user_id"] = m.user_id;
    o["payload"] = hex(m.payload);
    o["dl_status"] = dl_status_name(m.dl_status);
    o["timeout"] = m.timeout;
    o["timestamp"] = secs(m.timestamp);
    o["ttl"] = secs(m.ttl);
    return o;
}

dl_message dl_message_from_request(const QJsonObject& o) {
    dl_message m;
    m.f_ack = o["f_ack"].toInt(1);
    m.f_system = o["f_system"].toInt(0);
    m.station_id = o["station_id"].toInt(0);
    m.frequency = o["frequency"].toInt(0);
    m.dl_phy = o["dl_phy"].toInt(63);
    m.modem_id = o["modem_id"].toInt(0);
    m.timeout = o["timeout"].toInt(0);
    m.timestamp = QDateTime::currentDateTimeUtc();
    m.api_key = o["api_key"].toString();
    m.user_id = o["user_id"].toString();
    m.dl_status = o["status"].toInt(PENDING);
    // Only the numbers of dl_status may be stored: any other reads as the default.
    if (m.dl_status < PENDING || m.dl_status > TIMEOUT)
        m.dl_status = PENDING;
    m.data = o["data"].toObject();
    m.payload = from_hex(o["payload"]);
    return m;
}

}  // namespace model
