#include "decoder.h"

#include <QStringList>

#include "cursor.h"
#include "data_field.h"
#include "dib.h"
#include "header.h"
#include "security.h"
#include "vib.h"

namespace mbus {

namespace {

constexpr uint8_t dif_manufacturer_data = 0x0f;
constexpr uint8_t dif_more_records_follow = 0x1f;
constexpr uint8_t dif_idle_filler = 0x2f;

double power_of_ten(int exponent) {
    double p = 1;
    for (int i = 0; i < exponent; ++i) {
        p *= 10;
    }
    return p;
}

record read_record(cursor& in) {
    record rec;
    rec.offset = in.pos();
    const data_info dib = read_dib(in);
    const value_block vib = read_vib(in);
    // A VIB without a supported meaning still leaves the field's length to the DIF.
    const bool understood = dib.problem.isEmpty() && vib.info.unsupported.isEmpty();
    const value_kind kind = understood ? vib.info.kind : value_kind::none;
    const data_field field = read_data_field(in, dib.coding, kind);

    rec.dib = dib.bytes;
    rec.vib = vib.bytes;
    rec.data = field.raw;
    rec.coding = dib.coding;
    rec.function = dib.function;
    rec.storage = dib.storage;
    rec.tariff = dib.tariff;
    rec.subunit = dib.subunit;
    rec.info = vib.info;
    rec.value = field.value;
    rec.skipped = !dib.problem.isEmpty()            ? dib.problem
                  : !vib.info.unsupported.isEmpty() ? vib.info.unsupported
                                                    : field.problem;
    if (!rec.skipped.isEmpty()) {
        rec.value = QVariant();
    }
    if (rec.numeric() && rec.info.kind == value_kind::number && !rec.info.manufacturer) {
        rec.value = scale(field.value.toDouble(), rec.info);
    }
    return rec;
}

}  // namespace

double scale(double raw, const value_info& info) {
    // Dividing by an exact power of ten keeps 12345 x 10^-3 at exactly 12.345.
    const double scaled =
        info.exponent >= 0 ? raw * power_of_ten(info.exponent) : raw / power_of_ten(-info.exponent);
    return scaled * info.factor + info.offset;
}

bool needs_meter_link(const QByteArray& payload) {
    try {
        cursor in(payload);
        const app_header h = read_header(in);
        return h.encrypted() && (h.encryption_mode() == 5 || h.encryption_mode() == 7);
    } catch (const decode_error&) {
        return false;
    }
}

decode_result decode(const QByteArray& payload, const model::meter_link& meter) {
    decode_result result;
    QStringList notes;  // what was odd but did not stop the decoding
    cursor header_in(payload);
    QByteArray plain;  // the payload with its encrypted blocks decrypted
    try {
        result.header = read_header(header_in);
        const decryption d = decrypt(payload, header_in.pos(), result.header, meter);
        if (d.result == decryption::outcome::skipped || d.result == decryption::outcome::failed) {
            result.status = d.result == decryption::outcome::skipped ? "encrypted" : "decryption failed";
            result.security_problem = d.problem;
            return result;
        }
        result.decrypted = d.result == decryption::outcome::decrypted;
        plain = result.decrypted ? d.payload : payload;
        cursor in(plain, header_in.pos());
        if (!result.header.encrypted() && result.header.encryption_mode() != 0) {
            notes << QString(
                         "security mode %1 (configuration word 0x%2) is no defined encryption, records read "
                         "as plain")
                         .arg(result.header.encryption_mode())
                         .arg(result.header.configuration, 4, 16, QChar('0'));
        }
        while (!in.at_end()) {
            const int at = in.pos();
            const uint8_t dif = in.peek();
            if (dif == dif_idle_filler) {
                in.byte("DIF");
                continue;
            }
            if (dif == dif_manufacturer_data || dif == dif_more_records_follow) {
                in.byte("DIF");
                result.has_manufacturer_data = true;
                result.more_records_follow = dif == dif_more_records_follow;
                result.manufacturer_data = in.rest();
                break;
            }
            if ((dif & 0x0f) == 0x0f) {
                throw decode_error(QString("unsupported special DIF 0x%1").arg(dif, 2, 16, QChar('0')), at);
            }
            result.records.push_back(read_record(in));
            if (!result.records.back().skipped.isEmpty()) {
                notes << "skipped record: " + result.records.back().skipped;
            }
        }
        result.status = "parsed";
    } catch (const decode_error& e) {
        // The CI field error reads "... at byte 0" without the comma of the others.
        const bool ci = e.text().startsWith("unsupported CI field");
        result.status = QString("error: %1%2 at byte %3").arg(e.text(), ci ? "" : ",").arg(e.offset());
    } catch (const std::runtime_error& e) {
        // A failure inside libcrypto: the message is kept undecoded.
        result.status = "decryption failed";
        result.security_problem = QString::fromUtf8(e.what());
    }
    if (!notes.isEmpty() && (result.status.startsWith("parsed") || result.status.startsWith("error"))) {
        result.status += "; " + notes.join("; ");
    }
    return result;
}

}  // namespace mbus
