#include "data_field.h"

#include <algorithm>
#include <cmath>
#include <cstring>

#include "dib.h"

namespace mbus {

namespace {

QString hex(uint8_t b) {
    return QString("0x%1").arg(b, 2, 16, QChar('0'));
}

// Bytes of the fixed-length codings; 0 for no data, selection and variable length.
int fixed_length(int coding) {
    static const int lengths[16] = {0, 1, 2, 3, 4, 4, 6, 8, 0, 1, 2, 3, 4, 0, 6, 0};
    return lengths[coding & 0x0f];
}

bool is_bcd(int coding) {
    return coding >= bcd2 && coding <= bcd12 && coding != variable;
}

// Year of types G, F and I: 7 bits spread over two bytes; taken as 2000 + year.
int packed_year(uint8_t day_byte, uint8_t month_byte) {
    return 2000 + (((day_byte & 0xe0) >> 5) | ((month_byte & 0xf0) >> 1));
}

QDateTime make_time(int year, int month, int day, int hour, int minute, int second) {
    const QDate date(year, month, day);
    const QTime time(hour, minute, second);
    if (!date.isValid() || !time.isValid()) {
        return QDateTime();
    }
    return QDateTime(date, time, Qt::UTC);
}

QDateTime read_date(const QByteArray& raw, int coding, int offset) {
    switch (coding) {
        case int16:
            return date_g(raw);
        case int32:
            return date_time_f(raw);
        case int48:
            return date_time_i(raw);
        default:
            throw decode_error(QString("unsupported coding %1 for a date").arg(hex(coding)), offset);
    }
}

// Variable-length data: the LVAR byte says what follows.
data_field read_variable(cursor& in) {
    const int at = in.pos();
    const uint8_t lvar = in.byte("LVAR");
    data_field f;
    f.raw.append(char(lvar));
    if (lvar <= 0xbf) {  // ASCII text, last character first
        QByteArray text = in.bytes(lvar, "variable-length data");
        f.raw.append(text);
        std::reverse(text.begin(), text.end());
        f.value = QString::fromLatin1(text);
    } else if (lvar <= 0xc9 || (lvar >= 0xd0 && lvar <= 0xd9)) {  // BCD, positive or negative
        const int digits_at = in.pos();
        const QByteArray bcd = in.bytes(lvar & 0x0f, "variable-length data");
        f.raw.append(bcd);
        try {
            const int64_t magnitude = bcd_le(bcd, digits_at);
            f.value = double(lvar >= 0xd0 ? -magnitude : magnitude);
        } catch (const decode_error& e) {  // the field was read whole: only it is lost
            f.problem = QString("%1, at byte %2").arg(e.text()).arg(e.offset());
        }
    } else if (lvar >= 0xe0 && lvar <= 0xef) {  // binary number
        const QByteArray bin = in.bytes(lvar - 0xe0, "variable-length data");
        f.raw.append(bin);
        if (bin.size() >= 1 && bin.size() <= 8) {
            f.value = double(signed_le(bin));
        } else {
            f.value = QString::fromLatin1(bin.toHex());
        }
    } else if (lvar >= 0xf0 && lvar <= 0xf6) {  // long binary blocks, kept as hex
        static const int lengths[7] = {16, 20, 24, 28, 32, 48, 64};
        const QByteArray bin = in.bytes(lengths[lvar - 0xf0], "variable-length data");
        f.raw.append(bin);
        f.value = QString::fromLatin1(bin.toHex());
    } else {
        throw decode_error(QString("reserved LVAR %1").arg(hex(lvar)), at);
    }
    return f;
}

}  // namespace

int64_t signed_le(const QByteArray& bytes) {
    uint64_t v = 0;
    const int n = bytes.size();
    for (int i = n - 1; i >= 0; --i) {
        v = (v << 8) | uint8_t(bytes[i]);
    }
    if (n > 0 && n < 8 && (uint8_t(bytes[n - 1]) & 0x80)) {
        v |= ~uint64_t(0) << (8 * n);  // sign extension
    }
    return static_cast<int64_t>(v);
}

float real32_le(const QByteArray& bytes) {
    const uint32_t bits = static_cast<uint32_t>(signed_le(bytes.left(4)));
    float f;
    std::memcpy(&f, &bits, sizeof f);
    return f;
}

int64_t bcd_le(const QByteArray& bytes, int offset) {
    int64_t v = 0;
    bool negative = false;
    for (int i = bytes.size() - 1; i >= 0; --i) {
        const uint8_t b = uint8_t(bytes[i]);
        for (int shift = 4; shift >= 0; shift -= 4) {
            const int digit = (b >> shift) & 0x0f;
            if (i == bytes.size() - 1 && shift == 4 && digit == 0x0f) {
                negative = true;
                continue;
            }
            if (digit > 9) {
                throw decode_error(QString("invalid BCD digit %1").arg(digit, 1, 16), offset + i);
            }
            v = v * 10 + digit;
        }
    }
    return negative ? -v : v;
}

QDateTime date_g(const QByteArray& b) {
    if (b.size() < 2) {
        return QDateTime();
    }
    const uint8_t b0 = b[0], b1 = b[1];
    return make_time(packed_year(b0, b1), b1 & 0x0f, b0 & 0x1f, 0, 0, 0);
}

QDateTime date_time_f(const QByteArray& b) {
    if (b.size() < 4 || (uint8_t(b[0]) & 0x80)) {  // IV bit: time invalid
        return QDateTime();
    }
    const uint8_t b0 = b[0], b1 = b[1], b2 = b[2], b3 = b[3];
    return make_time(packed_year(b2, b3), b3 & 0x0f, b2 & 0x1f, b1 & 0x1f, b0 & 0x3f, 0);
}

QDateTime date_time_i(const QByteArray& b) {
    if (b.size() < 6 || (uint8_t(b[1]) & 0x80)) {  // IV bit: time invalid
        return QDateTime();
    }
    const uint8_t b0 = b[0], b1 = b[1], b2 = b[2], b3 = b[3], b4 = b[4];
    return make_time(packed_year(b3, b4), b4 & 0x0f, b3 & 0x1f, b2 & 0x1f, b1 & 0x3f, b0 & 0x3f);
}

namespace {

// Interprets bytes already read; a decode_error here concerns this field alone.
void interpret(data_field& f, int coding, value_kind kind, int at) {
    if (kind == value_kind::date || kind == value_kind::datetime) {
        const QDateTime t = read_date(f.raw, coding, at);
        if (t.isValid()) {
            f.value = t;
        }
    } else if (kind == value_kind::number) {
        if (coding == real32) {
            const double real = real32_le(f.raw);
            if (std::isfinite(real)) {  // NaN and infinities carry no reading
                f.value = real;
            }
        } else if (is_bcd(coding)) {
            f.value = double(bcd_le(f.raw, at));
        } else {
            f.value = double(signed_le(f.raw));
        }
    }
}

}  // namespace

data_field read_data_field(cursor& in, int coding, value_kind kind) {
    const int at = in.pos();
    if (coding == variable) {
        data_field f = read_variable(in);
        if (kind == value_kind::date || kind == value_kind::datetime) {
            f.value = QVariant();
            f.problem = QString("unsupported variable-length coding for a date, at byte %1").arg(at);
        }
        return f;
    }
    if (coding == special) {
        throw decode_error("special function DIF has no data field", at);
    }
    data_field f;
    f.raw = in.bytes(fixed_length(coding), "data field");
    if (coding == no_data || coding == selection) {
        return f;
    }
    try {
        interpret(f, coding, kind, at);
    } catch (const decode_error& e) {
        f.value = QVariant();
        f.problem = QString("%1, at byte %2").arg(e.text()).arg(e.offset());
    }
    return f;
}

}  // namespace mbus
