#include "vib.h"

#include <algorithm>

#include "dib.h"
#include "vif_tables.h"

namespace mbus {

namespace {

constexpr uint8_t extension_bit = 0x80;
constexpr uint8_t vif_fb = 0x7b;
constexpr uint8_t vif_plain_text = 0x7c;
constexpr uint8_t vif_fd = 0x7d;
constexpr uint8_t vif_manufacturer = 0x7f;

QString hex(uint8_t b) {
    return QString("0x%1").arg(b, 2, 16, QChar('0'));
}

void mark_unsupported(value_info& info, const QString& what, int at) {
    if (info.unsupported.isEmpty()) {
        info.unsupported = QString("%1, at byte %2").arg(what).arg(at);
    }
}

// Reads the byte after 0xfb/0xfd and looks it up in that extension table.
bool read_extension(cursor& in, value_block& out, uint8_t table) {
    const int at = in.pos();
    const uint8_t ext = in.byte("VIF extension");
    out.bytes.append(char(ext));
    const bool known = table == vif_fd ? fd_vif(ext & 0x7f, out.info) : fb_vif(ext & 0x7f, out.info);
    if (!known) {
        mark_unsupported(out.info,
                         QString("unsupported VIF extension %1 %2").arg(hex(table | extension_bit), hex(ext)),
                         at);
    }
    return ext & extension_bit;
}

// Plain-text unit: a length byte and the text, last character first, right after the
// VIF and before its VIFEs.
void read_plain_text(cursor& in, value_block& out) {
    const uint8_t length = in.byte("plain-text VIF");
    out.bytes.append(char(length));
    QByteArray text = in.bytes(length, "plain-text VIF");
    out.bytes.append(text);
    std::reverse(text.begin(), text.end());
    out.info.quantity = "plain:" + QString::fromLatin1(text);
    out.info.unit = QString::fromLatin1(text);
}

}  // namespace

value_block read_vib(cursor& in) {
    value_block out;
    const int at = in.pos();
    const uint8_t vif = in.byte("VIF");
    out.bytes.append(char(vif));
    const uint8_t code = vif & 0x7f;
    bool more = vif & extension_bit;

    if ((code == vif_fb || code == vif_fd) && more) {
        more = read_extension(in, out, code);
    } else if (code == vif_plain_text) {
        read_plain_text(in, out);
    } else if (code == vif_manufacturer) {
        out.info.quantity = "manufacturer_specific";
        out.info.manufacturer = true;
    } else if (!primary_vif(code, out.info)) {
        mark_unsupported(out.info, QString("unsupported VIF %1").arg(hex(vif)), at);
    }

    for (int n = 0; more; ++n) {
        if (n == max_extensions) {
            mark_unsupported(out.info, "more than 10 VIFEs", in.pos());
        }
        const int vife_at = in.pos();
        const uint8_t vife = in.byte("VIFE chain");
        out.bytes.append(char(vife));
        more = vife & extension_bit;
        // After a manufacturer-specific VIF or VIFE, or after a code the driver does not
        // know, the rest of the chain is only skipped.
        if (out.info.manufacturer || !out.info.unsupported.isEmpty()) {
            continue;
        }
        if (!combinable_vife(vife & 0x7f, out.info)) {
            mark_unsupported(out.info, QString("unsupported VIFE %1").arg(hex(vife)), vife_at);
        }
    }
    return out;
}

}  // namespace mbus
