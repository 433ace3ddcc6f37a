#include "header.h"

namespace mbus {

QString manufacturer_letters(int code) {
    QString out;
    for (int shift = 10; shift >= 0; shift -= 5) {
        out += QChar(char('A' - 1 + ((code >> shift) & 0x1f)));
    }
    return out;
}

namespace {

int read_word(cursor& in, const char* element) {
    const QByteArray b = in.bytes(2, element);
    return uint8_t(b[0]) | (uint8_t(b[1]) << 8);
}

// Identification number: 4 BCD bytes, least significant first. Kept as text so a
// non-decimal nibble (wildcards) does not fail the header.
QString read_identification(cursor& in) {
    const QByteArray b = in.bytes(4, "long header");
    QString out;
    for (int i = 3; i >= 0; --i) {
        out += QString("%1").arg(uint8_t(b[i]), 2, 16, QChar('0'));
    }
    return out;
}

}  // namespace

app_header read_header(cursor& in) {
    app_header h;
    h.ci = in.byte("CI field");
    switch (h.ci) {
        case ci_no_header:
            h.kind = "none";
            return h;
        case ci_short_header:
            h.kind = "short";
            if (in.remaining() < 4) {
                throw decode_error("truncated short header", in.pos());
            }
            break;
        case ci_long_header:
            h.kind = "long";
            if (in.remaining() < 12) {
                throw decode_error("truncated long header", in.pos());
            }
            h.identification = read_identification(in);
            h.manufacturer_code = read_word(in, "long header");
            h.manufacturer = manufacturer_letters(h.manufacturer_code);
            h.version = in.byte("long header");
            h.medium = in.byte("long header");
            break;
        default:
            throw decode_error(QString("unsupported CI field 0x%1").arg(h.ci, 2, 16, QChar('0')), 0);
    }
    h.access_number = in.byte("header");
    h.status = in.byte("header");
    h.configuration = read_word(in, "header");
    return h;
}

}  // namespace mbus
