#include "engine/heartbeat.h"

#include <QCryptographicHash>
#include <QtEndian>

namespace heartbeat {

namespace {
void append_le32(QByteArray& bytes, uint32_t value) {
    char buffer[4];
    qToLittleEndian<quint32>(value, buffer);
    bytes.append(buffer, 4);
}
}  // namespace

int64_t unique_id(const QByteArray& payload, int32_t modem_id, int32_t iterator,
                  const QDateTime& time_detected) {
    QByteArray input = payload;
    append_le32(input, static_cast<uint32_t>(modem_id));
    append_le32(input, static_cast<uint32_t>(iterator));
    append_le32(input, static_cast<uint32_t>(time_detected.toSecsSinceEpoch() & 0xffffffff));
    const QByteArray digest = QCryptographicHash::hash(input, QCryptographicHash::Md5);
    const auto high = qFromBigEndian<qint64>(digest.constData());
    const auto low = qFromBigEndian<qint64>(digest.constData() + 8);
    return high ^ low;
}

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
    stored.unique_id = unique_id(hb.payload, hb.modem_id, hb.iterator, hb.time_detected);
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
        value.message_id = QString::number(static_cast<quint64>(stored.unique_id), 16);
        result.append(value);
    }
    return result;
}

}  // namespace heartbeat
