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

// The long header's identification number, manufacturer, version and medium; `address`
// keeps the same bytes in the link layer's order (manufacturer first).
void read_meter_address(cursor& in, app_header& h) {
    const int at = in.pos();
    h.identification = read_identification(in);
    h.manufacturer_code = read_word(in, "long header");
    h.manufacturer = manufacturer_letters(h.manufacturer_code);
    h.version = in.byte("long header");
    h.medium = in.byte("long header");
    const QByteArray& all = in.all();
    h.address = all.mid(at + 4, 2) + all.mid(at, 4) + all.mid(at + 6, 2);
}

// Authentication and fragmentation layer: length, then the fields its fragmentation
// control word (FCL) announces, in this order: message control (MCL, 1 byte), key
// information (2), message counter (4), MAC (what is left), message length (2, last).
void read_afl(cursor& in, app_header& h) {
    const int at = in.pos();
    const int length = in.byte("AFL length");
    const QByteArray afl = in.bytes(length, "AFL");
    cursor field(afl);
    try {
        const int fcl = read_word(field, "AFL");
        if ((fcl & 0x4000) != 0 || (fcl & 0x00ff) != 0) {
            throw decode_error("unsupported fragmented AFL message", at);
        }
        const bool message_control = fcl & 0x2000;
        const bool message_length = fcl & 0x1000;
        const bool counter = fcl & 0x0800;
        const bool mac = fcl & 0x0400;
        const bool key_info = fcl & 0x0200;
        if (message_control) {
            field.byte("AFL");
        }
        if (key_info) {
            field.bytes(2, "AFL");
        }
        if (counter) {
            h.message_counter = field.bytes(4, "AFL");
            h.has_message_counter = true;
        }
        const int mac_size = field.remaining() - (message_length ? 2 : 0);
        if (mac_size < 0 || (!mac && mac_size > 0)) {
            throw decode_error("AFL length does not match its fields", at);
        }
        h.mac = field.bytes(mac_size, "AFL");
    } catch (const decode_error& e) {
        // Offsets inside the AFL count from the CI field too.
        throw decode_error(e.text(), e.offset() == at ? at : at + 1 + e.offset());
    }
    h.has_afl = true;
}

}  // namespace

app_header read_header(cursor& in) {
    app_header h;
    h.ci = in.byte("CI field");
    if (h.ci == ci_afl) {
        read_afl(in, h);
        h.ci = in.byte("CI field");
    }
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
            read_meter_address(in, h);
            break;
        default:
            throw decode_error(QString("unsupported CI field 0x%1").arg(h.ci, 2, 16, QChar('0')),
                               h.has_afl ? in.pos() - 1 : 0);
    }
    h.access_number = in.byte("header");
    h.status = in.byte("header");
    h.configuration = read_word(in, "header");
    if (h.encryption_mode() == 7) {
        h.configuration_extension = in.byte("configuration field extension");
    }
    return h;
}

}  // namespace mbus
