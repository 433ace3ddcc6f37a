#include "bench/uplink_feed.h"

#include <QDateTime>

namespace bench {

namespace {

// Data records of EN 13757-3: DIF, VIF (and VIFEs), then the little-endian data field.
class telegram {
public:
    explicit telegram(uint8_t access_number) {
        // CI 0x7A: short header with access number, status and configuration word 0.
        m_bytes.append(char(0x7A)).append(char(access_number)).append('\0').append('\0').append('\0');
    }
    telegram& integer(uint8_t dif, QByteArray vib, int64_t value, int bytes) {
        m_bytes.append(char(dif)).append(vib);
        for (int i = 0; i < bytes; ++i) {
            m_bytes.append(char((value >> (8 * i)) & 0xFF));
        }
        return *this;
    }
    // Type F: minute, hour, day with the year's low bits, month with its high bits.
    telegram& date_time(const QDateTime& t) {
        const int year = t.date().year() - 2000;
        m_bytes.append(char(0x04)).append(char(0x6D));
        m_bytes.append(char(t.time().minute()));
        m_bytes.append(char(t.time().hour()));
        m_bytes.append(char(t.date().day() | ((year & 0x07) << 5)));
        m_bytes.append(char(t.date().month() | ((year >> 3) << 4)));
        return *this;
    }
    const QByteArray& bytes() const { return m_bytes; }

private:
    QByteArray m_bytes;
};

}  // namespace

uplink_feed::uplink_feed(int modems, int first_modem)
    : m_modems(qMax(1, modems)),
      m_first_modem(first_modem),
      m_start_time(QDateTime::currentSecsSinceEpoch()) {}

QByteArray uplink_feed::payload(int modem, int round) const {
    const int64_t base = int64_t(modem % 9973) * 1000;
    const QDateTime reading = QDateTime::fromSecsSinceEpoch(m_start_time + round * 900, Qt::UTC);
    telegram t(static_cast<uint8_t>(round & 0xFF));
    t.integer(0x04, QByteArray(1, 0x13), base + round * 7, 4)                     // volume, l
        .integer(0x44, QByteArray(1, 0x13), base, 4)                              // volume at the due date
        .integer(0x04, QByteArray(1, 0x06), base / 10 + round, 4)                 // energy, kWh
        .integer(0x02, QByteArray(1, 0x5A), 650 + (round % 50), 2)                // flow temperature, 0.1 C
        .integer(0x02, QByteArray(1, 0x5E), 400 + (round % 30), 2)                // return temperature, 0.1 C
        .integer(0x03, QByteArray(1, 0x2B), 1200 + (modem % 500), 3)              // power, W
        .integer(0x03, QByteArray(1, 0x3B), 300 + (round % 100), 3)               // volume flow, l/h
        .integer(0x03, QByteArray(1, 0x26), 10000 + round / 4, 3)                 // operating time, h
        .date_time(reading)                                                       // meter time
        .integer(0x01, QByteArray::fromHex("fd17"), round % 97 == 0 ? 1 : 0, 1);  // error flags
    return t.bytes();
}

QJsonObject uplink_feed::next() {
    const int modem = m_first_modem + int(m_sent % uint64_t(m_modems));
    const int round = int(m_sent / uint64_t(m_modems));
    ++m_sent;
    return QJsonObject{{"msg_type", "ul_app"},
                       {"modem_id", modem},
                       {"protocol", protocol()},
                       {"hw_type", hw_type()},
                       {"payload", QString::fromLatin1(payload(modem, round).toHex())},
                       {"iterator", round},
                       {"station_id", 1000 + modem % 37},
                       {"phy", "lora"},
                       {"snr", 9},
                       {"rssi", -97},
                       {"dl_mode", "class_a"},
                       {"dl_phy", "lora"},
                       {"last_dl_bs", 1000 + modem % 37},
                       {"last_dl_bs_aver_busyness", 0.2},
                       {"last_dl_bs_busyness", 0.1},
                       {"bs_tz", 3},
                       {"time_detected", qint64(m_start_time + round * 900)},
                       {"time_saved", qint64(m_start_time + round * 900 + 1)}};
}

QString uplink_feed::routing_key(const QJsonObject& uplink, const QString& route_key) {
    // <network server>.<shard>.<route key>.<instance>.<protocol>.<uplink id>
    return QString("nc.0.%1.marl2.%2.%3").arg(route_key, protocol()).arg(uplink.value("modem_id").toInt());
}

QList<int> uplink_feed::modem_ids() const {
    QList<int> ids;
    ids.reserve(m_modems);
    for (int i = 0; i < m_modems; ++i) {
        ids.append(m_first_modem + i);
    }
    return ids;
}

}  // namespace bench
