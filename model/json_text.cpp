#include "model/json_text.h"

#include <QJsonArray>
#include <QJsonObject>
#include <QLocale>
#include <cmath>
#include <cstring>

namespace model {

namespace json_text_detail {

namespace {
char hex_digit(unsigned u) {
    return char(u < 10 ? '0' + u : 'a' + u - 10);
}

char* write_escape(char* p, unsigned unit) {
    *p++ = '\\';
    *p++ = 'u';
    *p++ = hex_digit(unit >> 12 & 0xf);
    *p++ = hex_digit(unit >> 8 & 0xf);
    *p++ = hex_digit(unit >> 4 & 0xf);
    *p++ = hex_digit(unit & 0xf);
    return p;
}

char* write_ascii_escape(char* p, unsigned u) {
    char short_form = 0;
    switch (u) {
        case '"':
            short_form = '"';
            break;
        case '\\':
            short_form = '\\';
            break;
        case '\b':
            short_form = 'b';
            break;
        case '\f':
            short_form = 'f';
            break;
        case '\n':
            short_form = 'n';
            break;
        case '\r':
            short_form = 'r';
            break;
        case '\t':
            short_form = 't';
            break;
        default:
            return write_escape(p, u);
    }
    *p++ = '\\';
    *p++ = short_form;
    return p;
}

char* write_utf8(char* p, char32_t c) {
    if (c < 0x800) {
        *p++ = char(0xc0 | c >> 6);
    } else {
        if (c < 0x10000) {
            *p++ = char(0xe0 | c >> 12);
        } else {
            *p++ = char(0xf0 | c >> 18);
            *p++ = char(0x80 | (c >> 12 & 0x3f));
        }
        *p++ = char(0x80 | (c >> 6 & 0x3f));
    }
    *p++ = char(0x80 | (c & 0x3f));
    return p;
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
    // Written through a pointer into room for the worst case (six bytes per unit), then
    // cut to what was used: no per-character append.
    const int start = out.size();
    out.resize(start + 2 + 6 * s.size());
    char* p = out.data() + start;
    *p++ = '"';
    const ushort* unit = s.utf16();
    const ushort* const end = unit + s.size();
    while (unit != end) {
        const unsigned u = *unit++;
        if (u < 0x80) {
            if (u >= 0x20 && u != '"' && u != '\\') {
                *p++ = char(u);
            } else {
                p = write_ascii_escape(p, u);
            }
        } else if (QChar::isHighSurrogate(u) && unit != end && QChar::isLowSurrogate(*unit)) {
            p = write_utf8(p, QChar::surrogateToUcs4(ushort(u), *unit++));
        } else if (QChar::isSurrogate(u)) {
            p = write_escape(p, u);
        } else {
            p = write_utf8(p, u);
        }
    }
    *p++ = '"';
    out.resize(int(p - out.constData()));
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

object_writer::object_writer(QByteArray& out) : m_out(out) {
    m_out.append('{');
}

object_writer::~object_writer() {
    m_out.append('}');
}

QByteArray& object_writer::key(const char* name, int length) {
    // One append for the separator, the quoted name and the colon: each append of a
    // QByteArray checks its sharing and its room anew.
    char buffer[64];
    if (length > int(sizeof buffer) - 4) {
        if (m_members++ > 0) {
            m_out.append(',');
        }
        m_out.append('"').append(name, length).append("\":", 2);
        return m_out;
    }
    char* p = buffer;
    if (m_members++ > 0) {
        *p++ = ',';
    }
    *p++ = '"';
    std::memcpy(p, name, size_t(length));
    p += length;
    *p++ = '"';
    *p++ = ':';
    m_out.append(buffer, int(p - buffer));
    return m_out;
}

void append_hex(QByteArray& out, const QByteArray& bytes) {
    const int start = out.size();
    out.resize(start + 2 + 2 * bytes.size());
    char* p = out.data() + start;
    *p++ = '"';
    for (const char c : bytes) {
        *p++ = hex_digit(uint8_t(c) >> 4);
        *p++ = hex_digit(uint8_t(c) & 0xf);
    }
    *p = '"';
}

void append_ascii(QByteArray& out, const char* text) {
    out.append('"').append(text).append('"');
}

void append_iso_date(QByteArray& out, const QDateTime& t) {
    const QDate date = t.date();
    const int year = date.year();
    if (!t.isValid() || t.timeSpec() != Qt::UTC || year < 0 || year > 9999) {
        append_string(out, t.toString(Qt::ISODate));
        return;
    }
    // yyyy-MM-ddTHH:mm:ssZ
    const QTime time = t.time();
    const int parts[] = {year / 100,  year % 100,    date.month(), date.day(),
                         time.hour(), time.minute(), time.second()};
    const char after[] = {0, '-', '-', 'T', ':', ':', 'Z'};
    char text[24];
    char* p = text;
    *p++ = '"';
    for (size_t i = 0; i < sizeof parts / sizeof parts[0]; ++i) {
        *p++ = char('0' + parts[i] / 10);
        *p++ = char('0' + parts[i] % 10);
        if (after[i] != 0) {
            *p++ = after[i];
        }
    }
    *p++ = '"';
    out.append(text, int(p - text));
}

}  // namespace json_text_detail

QByteArray compact_text(const QJsonDocument& d) {
    QByteArray out;
    out.reserve(1024);
    json_text_detail::append_document(out, d);
    return out;
}

using namespace json_text_detail;

void append_json(QByteArray& out, const dev_value& v) {
    object_writer o(out);
    o.text("message_id", v.message_id);
    o.integer("modem_id", v.modem_id);
    o.text("obis_code", v.obis_code);
    o.text("tag", v.tag);
    o.seconds("timestamp", v.timestamp);
    o.seconds("ttl", v.ttl);
    if (v.value.type() == QVariant::Double) {
        o.number("value",
                 v.value.toDouble());  // what QJsonValue::fromVariant gives for it, without the detour
    } else {
        o.value("value", QJsonValue::fromVariant(v.value));
    }
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
    if (m.data_text.isEmpty()) {
        o.document("data", m.data);
    } else {
        o.key("data").append(m.data_text);
    }
    o.document("extended_data", m.extended_data);
    o.text("hw_type", m.hw_type);
    o.integer("modem_id", m.modem_id);
    o.text("parse_status", m.parse_status);
    o.hex("payload", m.payload);
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
