#include "dl_encoder.h"

#include <QJsonValue>
#include <cmath>
#include <stdexcept>

namespace mbus {

namespace {

constexpr unsigned char dif_int8 = 0x01;
constexpr unsigned char dif_int32 = 0x04;
constexpr unsigned char vif_datetime = 0x6d;
constexpr unsigned char vif_bus_address = 0x7a;
// Primary addresses 251 to 255 are reserved (secondary addressing, broadcasts).
constexpr int max_primary_address = 250;
// The raw hex text is bounded: a downlink is short, and this keeps the work bounded.
constexpr int max_raw_hex_chars = 512;

[[noreturn]] void bad(const QString& why) {
    throw std::invalid_argument(("mbus downlink: " + why).toStdString());
}

// A whole number from the data, or a clear error naming the key.
qint64 whole_number(const QJsonObject& data, const QString& key, qint64 min, qint64 max) {
    const QJsonValue v = data.value(key);
    if (!v.isDouble()) {
        bad(QString("\"%1\" of \"%2\" must be a number").arg(key, data.value("cmd").toString()));
    }
    const double d = v.toDouble();
    if (d != std::floor(d) || d < double(min) || d > double(max)) {
        bad(QString("\"%1\" of \"%2\" must be a whole number from %3 to %4, not %5")
                .arg(key, data.value("cmd").toString())
                .arg(min)
                .arg(max)
                .arg(d, 0, 'g', 17));
    }
    return static_cast<qint64>(d);
}

QByteArray set_datetime(const QJsonObject& data) {
    // 2000-01-01 to 2127-12-31 23:59:59 UTC, what the 7-bit year can hold.
    const qint64 t = whole_number(data, "time", 946684800, 4985971199LL);
    QByteArray out;
    out.append(char(ci_data_send)).append(char(dif_int32)).append(char(vif_datetime));
    return out + type_f(QDateTime::fromSecsSinceEpoch(t, Qt::UTC));
}

QByteArray set_primary_address(const QJsonObject& data) {
    const qint64 address = whole_number(data, "address", 0, max_primary_address);
    QByteArray out;
    out.append(char(ci_data_send)).append(char(dif_int8)).append(char(vif_bus_address));
    return out.append(char(address));
}

QByteArray raw(const QJsonObject& data) {
    const QJsonValue v = data.value("hex");
    if (!v.isString()) {
        bad("\"hex\" of \"raw\" must be a text of hex digits");
    }
    const QString hex = v.toString();
    if (hex.isEmpty() || hex.size() % 2 != 0 || hex.size() > max_raw_hex_chars) {
        bad(QString("\"hex\" of \"raw\" must hold an even number of hex digits, 2 to %1, not %2")
                .arg(max_raw_hex_chars)
                .arg(hex.size()));
    }
    for (const QChar c : hex) {
        const QChar l = c.toLower();
        if (!(l >= '0' && l <= '9') && !(l >= 'a' && l <= 'f')) {
            bad(QString("\"hex\" of \"raw\" holds a character that is not a hex digit: '%1'").arg(c));
        }
    }
    return QByteArrayLiteral("start_placeholder") + hex.toLatin1() + QByteArrayLiteral("stop_placeholder");
}

}  // namespace

QByteArray type_f(const QDateTime& time) {
    const QDateTime utc = time.toUTC();
    const QDate d = utc.date();
    const QTime t = utc.time();
    const int year = d.year() - 2000;
    if (!utc.isValid() || year < 0 || year > 127) {
        bad("a date and time must lie in the years 2000 to 2127");
    }
    QByteArray out(4, '\0');
    out[0] = char(t.minute());                               // bits 0-5; bit 7 "invalid" clear
    out[1] = char(t.hour());                                 // bits 0-4; summer time clear
    out[2] = char(d.day() | ((year & 0x07) << 5));           // day, year bits 0-2
    out[3] = char(d.month() | (((year >> 3) & 0x0f) << 4));  // month, year bits 3-6
    return out;
}

bool is_command(const QJsonObject& data) {
    return data.value("cmd").isString();
}

QByteArray encode_command(const QJsonObject& data) {
    const QString cmd = data.value("cmd").toString();
    if (cmd == "set_datetime") {
        return set_datetime(data);
    }
    if (cmd == "application_reset") {
        return QByteArray(1, char(ci_application_reset));
    }
    if (cmd == "set_primary_address") {
        return set_primary_address(data);
    }
    if (cmd == "raw") {
        return raw(data);
    }
    bad(QString("unknown \"cmd\" \"%1\" (set_datetime, application_reset, set_primary_address or raw)")
            .arg(cmd.left(64)));
}

bool needs_confirmation(const QJsonObject& data) {
    return data.value("cmd").toString() == "set_primary_address";
}

confirmation confirmation_of(const QJsonObject& data) {
    if (data.value("cmd").toString() == "set_primary_address") {
        return {"bus_address", data.value("address").toDouble()};
    }
    return {};
}

bool writable_setting(const QString& name) {
    return name == "bus_address";
}

QJsonObject setting_command(const QString& name, const QJsonValue& value) {
    if (name == "bus_address") {
        return QJsonObject{{"cmd", "set_primary_address"}, {"address", value}};
    }
    bad(QString("setting \"%1\" cannot be written to the meter").arg(name.left(64)));
}

}  // namespace mbus
