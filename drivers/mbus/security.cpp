#include "security.h"

#include <algorithm>

#include "aes.h"
#include "header.h"

namespace mbus {

namespace {

constexpr int block = 16;
constexpr uint8_t verification_byte = 0x2f;
constexpr int kdf_none = 0;
constexpr int kdf_a = 1;

decryption skipped(const QString& problem) {
    return {decryption::outcome::skipped, QByteArray(), problem};
}

decryption failed(const QString& problem) {
    return {decryption::outcome::failed, QByteArray(), problem};
}

QString mode_name(int mode) {
    switch (mode) {
        case 2:
        case 3:
            return "DES-CBC";
        case 4:
            return "AES-CBC without initialization vector";
        case 8:
            return "AES-CTR";
        case 9:
            return "AES-GCM";
        case 10:
            return "AES-CCM";
        case 13:
            return "TLS";
        default:
            return "unknown";
    }
}

int manufacturer_code(const QString& letters) {
    int code = 0;
    for (const QChar c : letters) {
        code = (code << 5) | ((c.toLatin1() - 'A' + 1) & 0x1f);
    }
    return code;
}

// The identification number's 8 digits, most significant first, as the 4 bytes the link
// layer sends (least significant first).
QByteArray identification_bytes(const QString& digits) {
    QByteArray big = QByteArray::fromHex(digits.toLatin1());
    std::reverse(big.begin(), big.end());
    return big;
}

// Which key, or why none: for mode 7 the configuration field extension names the key
// derivation (bits 4-5).
QString derive_key(const app_header& h, const QByteArray& address, const QByteArray& key, QByteArray& out) {
    if (h.encryption_mode() == 5) {
        out = key;
        return QString();
    }
    const int kdf = (h.configuration_extension >> 4) & 0x03;
    if (kdf == kdf_none) {
        out = key;
        return QString();
    }
    if (kdf != kdf_a) {
        return QString(
                   "security mode 7 with key derivation %1 is not decrypted (only 0, none, and 1, "
                   "AES-CMAC)")
            .arg(kdf);
    }
    if (!h.has_message_counter) {
        return "security mode 7 derives its key from the message counter, and the payload has no "
               "authentication layer (CI 0x90) carrying one";
    }
    out = mode7_encryption_key(key, h.message_counter, address.mid(2, 4));
    return QString();
}

}  // namespace

QByteArray meter_address(const app_header& header, const model::meter_link& meter) {
    if (header.address.size() == 8) {
        return header.address;
    }
    if (!meter.has_address()) {
        return QByteArray();
    }
    const int code = manufacturer_code(meter.manufacturer);
    QByteArray out;
    out.append(char(code & 0xff));
    out.append(char((code >> 8) & 0xff));
    out.append(identification_bytes(meter.identification));
    out.append(char(meter.version));
    out.append(char(meter.medium));
    return out;
}

QByteArray mode5_iv(const QByteArray& address, int access_number) {
    return address + QByteArray(8, char(access_number));
}

QByteArray mode7_encryption_key(const QByteArray& key, const QByteArray& message_counter,
                                const QByteArray& identification) {
    QByteArray input;
    input.append(char(0x00));  // derivation constant: encryption, meter to other party
    input.append(message_counter);
    input.append(identification);
    input.append(QByteArray(7, char(0x07)));
    return aes128_cmac(key, input);
}

decryption decrypt(const QByteArray& payload, int at, const app_header& h, const model::meter_link& meter) {
    const int mode = h.encryption_mode();
    if (!h.encrypted()) {
        return {};
    }
    if (mode != 5 && mode != 7) {
        return skipped(QString("security mode %1 (%2) is not decrypted").arg(mode).arg(mode_name(mode)));
    }
    if (!meter.has_key()) {
        return skipped(QString("encrypted with security mode %1 and the device registry has no \"aes_key\" "
                               "for the modem")
                           .arg(mode));
    }
    const int blocks = h.encrypted_blocks();
    if (blocks == 0) {
        return {};  // the configuration word says no block is encrypted
    }
    const QByteArray address = meter_address(h, meter);
    if (address.isEmpty()) {
        return skipped(QString("security mode %1 with a short header needs the meter's \"manufacturer\", "
                               "\"identification\", \"version\" and \"medium\" in the device registry")
                           .arg(mode));
    }
    const int length = blocks * block;
    if (payload.size() - at < length) {
        return failed(QString("the configuration word announces %1 encrypted bytes at byte %2, %3 are left")
                          .arg(length)
                          .arg(at)
                          .arg(payload.size() - at));
    }
    QByteArray key;
    const QString why_not = derive_key(h, address, meter.aes_key, key);
    if (!why_not.isEmpty()) {
        return skipped(why_not);
    }
    const QByteArray iv = mode == 5 ? mode5_iv(address, h.access_number) : QByteArray(block, '\0');
    const QByteArray plain = aes128_cbc_decrypt(key, iv, payload.mid(at, length));
    if (uint8_t(plain[0]) != verification_byte || uint8_t(plain[1]) != verification_byte) {
        return failed(QString("security mode %1: the decrypted data does not begin with 2F 2F (wrong "
                              "\"aes_key\", wrong meter address or a corrupted telegram)")
                          .arg(mode));
    }
    decryption out;
    out.result = decryption::outcome::decrypted;
    out.payload = payload.left(at) + plain + payload.mid(at + length);
    return out;
}

}  // namespace mbus
