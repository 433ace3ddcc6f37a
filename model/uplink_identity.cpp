#include "model/uplink_identity.h"

#include <QCryptographicHash>
#include <QtEndian>

namespace model {

namespace {
void append_le32(QByteArray& bytes, uint32_t value) {
    char buffer[4];
    qToLittleEndian<quint32>(value, buffer);
    bytes.append(buffer, 4);
}
}  // namespace

int64_t uplink_unique_id(const QByteArray& payload, int32_t modem_id, int32_t iterator,
                         const QDateTime& time_detected) {
    QByteArray input;
    input.reserve(payload.size() + 12);
    input.append(payload);
    append_le32(input, static_cast<uint32_t>(modem_id));
    append_le32(input, static_cast<uint32_t>(iterator));
    append_le32(input, static_cast<uint32_t>(time_detected.toSecsSinceEpoch() & 0xffffffff));
    const QByteArray digest = QCryptographicHash::hash(input, QCryptographicHash::Md5);
    const auto high = qFromBigEndian<qint64>(digest.constData());
    const auto low = qFromBigEndian<qint64>(digest.constData() + 8);
    return high ^ low;
}

QString uplink_message_id(int64_t unique_id) {
    return QString::number(static_cast<quint64>(unique_id), 16);
}

void copy_uplink_fields(const ul_app_message& in, ul_message& out) {
    out.hw_type = in.hw_type;
    out.protocol = in.protocol;
    out.station_id = in.station_id;
    out.phy = in.phy;
    out.snr = in.snr;
    out.rssi = in.rssi;
    out.payload = in.payload;
    out.iterator = in.iterator;
    out.tz_mismatch = in.tz_mismatch;
    out.time_detected = in.time_detected;
    out.dl_phy = in.dl_phy;
    out.last_dl_bs_aver_busyness = in.last_dl_bs_aver_busyness;
    out.last_dl_bs_busyness = in.last_dl_bs_busyness;
    out.bs_timezone_offset = in.bs_tz;
}

}  // namespace model
