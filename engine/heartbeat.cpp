#include "engine/heartbeat.h"

#include "model/uplink_identity.h"

namespace heartbeat {

model::ul_message stored_message(const model::ul_hb_message& hb) {
    model::ul_message stored;
    stored.hw_type = hb.hw_type;
    stored.protocol = hb.protocol;
    stored.station_id = hb.station_id;
    stored.phy = hb.phy;
    stored.snr = hb.snr;
    stored.rssi = hb.rssi;
    stored.payload = hb.payload;
    stored.iterator = hb.iterator;
    stored.time_detected = hb.time_detected;
    stored.modem_id = hb.modem_id;
    stored.bs_timezone_offset = hb.bs_tz;
    stored.parse_status = "parsed";
    stored.tag = tag;
    stored.timestamp = hb.time_detected;
    stored.ttl = QDateTime::currentDateTimeUtc().addSecs(message_ttl_seconds);
    stored.unique_id = model::uplink_unique_id(hb.payload, hb.modem_id, hb.iterator, hb.time_detected);
    stored.data = QJsonDocument(QJsonObject{{"temp", hb.temperature}, {"voltage", hb.voltage}});
    return stored;
}

QList<model::dev_value> values(const model::ul_message& stored) {
    QList<model::dev_value> result;
    const QJsonObject data = stored.data.object();
    for (auto it = data.begin(); it != data.end(); ++it) {
        model::dev_value value;
        value.modem_id = stored.modem_id;
        value.timestamp = stored.timestamp;
        value.ttl = stored.timestamp.addSecs(value_ttl_seconds);
        value.obis_code = it.key();
        value.tag = tag;
        value.value = it.value().toDouble();
        value.message_id = model::uplink_message_id(stored.unique_id);
        result.append(value);
    }
    return result;
}

}  // namespace heartbeat
