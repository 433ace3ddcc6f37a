#include "model/json_text.h"

#include <QJsonArray>
#include <QJsonObject>
#include <QLocale>
#include <cmath>

namespace model {

namespace json_text_detail {

namespace {
char hex_digit(unsigned u) {
    return char(u < 10 ? '0' + u : 'a' + u - 10);
}

void append_escape(QByteArray& out, unsigned unit) {
    const char text[6] = {'\\',
                          'u',
                          hex_digit(unit >> 12 & 0xf),
                          hex_digit(unit >> 8 & 0xf),
                          hex_digit(unit >> 4 & 0xf),
                          hex_digit(unit & 0xf)};
    out.append(text, 6);
}

void append_ascii(QByteArray& out, unsigned u) {
    if (u >= 0x20 && u != '"' && u != '\\') {
        out.append(char(u));
        return;
    }
    switch (u) {
        case '"':
            out.append("\\\"", 2);
            break;
        case '\\':
            out.append("\\\\", 2);
            break;
        case '\b':
            out.append("\\b", 2);
            break;
        case '\f':
            out.append("\\f", 2);
            break;
        case '\n':
            out.append("\\n", 2);
            break;
        case '\r':
            out.append("\\r", 2);
            break;
        case '\t':
            out.append("\\t", 2);
            break;
        default:
            append_escape(out, u);
    }
}

void append_utf8(QByteArray& out, char32_t c) {
    if (c < 0x800) {
        const char bytes[2] = {char(0xc0 | c >> 6), char(0x80 | (c & 0x3f))};
        out.append(bytes, 2);
    } else if (c < 0x10000) {
        const char bytes[3] = {char(0xe0 | c >> 12), char(0x80 | (c >> 6 & 0x3f)), char(0x80 | (c & 0x3f))};
        out.append(bytes, 3);
    } else {
        const char bytes[4] = {char(0xf0 | c >> 18), char(0x80 | (c >> 12 & 0x3f)),
                               char(0x80 | (c >> 6 & 0x3f)), char(0x80 | (c & 0x3f))};
        out.append(bytes, 4);
    }
}
}  // namespace

void append_integer(QByteArray& out, int64_t v) {
    char digits[24];
    char* end = digits + sizeof digits;
    char* p = end;
    uint64_t magnitude = v < 0 ? uint64_t(0) - uint64_t(v) : uint64_t(v);
    do {
        *--p = char('0' + magnitude % 10);
        magnitude /= 10;
    } while (magnitude != 0);
    if (v < 0) {
        *--p = '-';
    }
    out.append(p, int(end - p));
}

void append_number(QByteArray& out, double d) {
    if (!std::isfinite(d)) {
        out.append("null", 4);
        return;
    }
    const double magnitude = std::fabs(d);
    const bool integral = magnitude < 18446744073709551616.0 && magnitude == std::floor(magnitude);
    if (integral && magnitude <= 9007199254740992.0) {
        append_integer(out, int64_t(d));  // exact; -0 is written as 0
        return;
    }
    out.append(QByteArray::number(d, integral ? 'f' : 'g', QLocale::FloatingPointShortest));
}

void append_string(QByteArray& out, const QString& s) {
    out.append('"');
    const ushort* unit = s.utf16();
    const ushort* const end = unit + s.size();
    while (unit != end) {
        const unsigned u = *unit++;
        if (u < 0x80) {
            append_ascii(out, u);
        } else if (QChar::isHighSurrogate(u) && unit != end && QChar::isLowSurrogate(*unit)) {
            append_utf8(out, QChar::surrogateToUcs4(ushort(u), *unit++));
        } else if (QChar::isSurrogate(u)) {
            append_escape(out, u);
        } else {
            append_utf8(out, u);
        }
    }
    out.append('"');
}

void append_value(QByteArray& out, const QJsonValue& v) {
    switch (v.type()) {
        case QJsonValue::Bool:
            v.toBool() ? out.append("true", 4) : out.append("false", 5);
            break;
        case QJsonValue::Double:
            append_number(out, v.toDouble());
            break;
        case QJsonValue::String:
            append_string(out, v.toString());
            break;
        case QJsonValue::Array:
            append_array(out, v.toArray());
            break;
        case QJsonValue::Object:
            append_object(out, v.toObject());
            break;
        default:
            out.append("null", 4);
    }
}

void append_object(QByteArray& out, const QJsonObject& o) {
    // A QJsonObject iterates in the sorted order of its keys, the order it writes them in.
    out.append('{');
    bool first = true;
    for (auto it = o.constBegin(); it != o.constEnd(); ++it) {
        if (!first) {
            out.append(',');
        }
        first = false;
        append_string(out, it.key());
        out.append(':');
        append_value(out, it.value());
    }
    out.append('}');
}

void append_array(QByteArray& out, const QJsonArray& a) {
    out.append('[');
    bool first = true;
    for (const QJsonValue& v : a) {
        if (!first) {
            out.append(',');
        }
        first = false;
        append_value(out, v);
    }
    out.append(']');
}

void append_document(QByteArray& out, const QJsonDocument& d) {
    if (d.isObject()) {
        append_object(out, d.object());
    } else if (d.isArray()) {
        append_array(out, d.array());
    } else {
        out.append("null", 4);
    }
}

}  // namespace json_text_detail

QByteArray compact_text(const QJsonDocument& d) {
    QByteArray out;
    out.reserve(1024);
    json_text_detail::append_document(out, d);
    return out;
}

namespace {
using namespace json_text_detail;

// Writes the members of one object in the order given, which must be the sorted order
// of their keys.
class object_writer {
public:
    explicit object_writer(QByteArray& out) : m_out(out) { m_out.append('{'); }
    ~object_writer() { m_out.append('}'); }
    object_writer(const object_writer&) = delete;
    object_writer& operator=(const object_writer&) = delete;

    QByteArray& key(const char* name, int length) {
        if (m_members++ > 0) {
            m_out.append(',');
        }
        m_out.append('"');
        m_out.append(name, length);
        m_out.append("\":", 2);
        return m_out;
    }
    template <int N>
    QByteArray& key(const char (&name)[N]) {
        return key(name, N - 1);
    }

    template <int N>
    void integer(const char (&name)[N], int64_t v) {
        append_number(key(name), double(v));
    }
    template <int N>
    void seconds(const char (&name)[N], const QDateTime& t) {
        integer(name, t.toSecsSinceEpoch());
    }
    template <int N>
    void text(const char (&name)[N], const QString& s) {
        append_string(key(name), s);
    }
    template <int N>
    void document(const char (&name)[N], const QJsonDocument& d) {
        append_document(key(name), d);
    }
    template <int N>
    void boolean(const char (&name)[N], bool b) {
        b ? key(name).append("true", 4) : key(name).append("false", 5);
    }
    // An undefined value leaves its key out, as it does in a QJsonObject.
    template <int N>
    void value(const char (&name)[N], const QJsonValue& v) {
        if (!v.isUndefined()) {
            append_value(key(name), v);
        }
    }

private:
    QByteArray& m_out;
    int m_members = 0;
};
}  // namespace

void append_json(QByteArray& out, const dev_value& v) {
    object_writer o(out);
    o.text("message_id", v.message_id);
    o.integer("modem_id", v.modem_id);
    o.text("obis_code", v.obis_code);
    o.text("tag", v.tag);
    o.seconds("timestamp", v.timestamp);
    o.seconds("ttl", v.ttl);
    o.value("value", QJsonValue::fromVariant(v.value));
}

void append_json(QByteArray& out, const dev_event& e) {
    object_writer o(out);
    o.integer("event_code", e.event_code);
    o.document("extended_data", e.extended_data);
    o.text("message", e.message);
    o.text("message_id", e.message_id);
    o.integer("modem_id", e.modem_id);
    o.integer("parameter", e.parameter);
    o.seconds("timestamp", e.timestamp);
    o.seconds("ttl", e.ttl);
}

void append_json(QByteArray& out, const ul_message& m) {
    object_writer o(out);
    o.integer("bs_timezone_offset", m.bs_timezone_offset);
    o.document("data", m.data);
    o.document("extended_data", m.extended_data);
    o.text("hw_type", m.hw_type);
    o.integer("modem_id", m.modem_id);
    o.text("parse_status", m.parse_status);
    // Hexadecimal digits need no escaping.
    QByteArray& payload = o.key("payload");
    payload.append('"');
    payload.append(m.payload.toHex());
    payload.append('"');
    o.text("phy", m.phy);
    o.text("protocol", m.protocol);
    o.integer("rssi", m.rssi);
    o.integer("snr", m.snr);
    o.integer("station_id", m.station_id);
    o.text("tag", m.tag);
    o.seconds("time_detected", m.time_detected);
    o.seconds("timestamp", m.timestamp);
    o.seconds("ttl", m.ttl);
    o.boolean("tz_mismatch", m.tz_mismatch);
    o.integer("unique_id", m.unique_id);
}

}  // namespace model
