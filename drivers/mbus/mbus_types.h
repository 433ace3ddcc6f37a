#pragma once

#include <QByteArray>
#include <QDateTime>
#include <QString>
#include <QVariant>
#include <cstdint>
#include <vector>

namespace mbus {

// DIF bits 5-4.
enum class function_field { instantaneous = 0, maximum = 1, minimum = 2, error_state = 3 };

// The data link's application header, as far as the CI field announces one.
struct app_header {
    uint8_t ci = 0;
    QString kind;  // "none", "short" or "long"
    // Long header only.
    QString identification;  // 8 BCD digits, most significant first
    QString manufacturer;    // three-letter code
    int manufacturer_code = 0;
    int version = 0;
    int medium = 0;
    QByteArray address;  // long header: manufacturer, identification, version, medium as the
                         // link layer orders them (the 8 bytes of the A- and M-field)
    // Short and long header.
    int access_number = 0;
    int status = 0;
    int configuration = 0;
    int configuration_extension = -1;  // security mode 7: the byte after the configuration word
    // Authentication and fragmentation layer (CI 0x90) before the transport header.
    bool has_afl = false;
    bool has_message_counter = false;
    QByteArray message_counter;  // 4 bytes as sent, least significant first
    QByteArray mac;              // as sent; not checked

    bool has_status() const { return kind != "none"; }
    // Security (encryption) mode: bits 8-12 of the configuration word.
    int encryption_mode() const { return (configuration >> 8) & 0x1f; }
    // Security modes 5 and 7: number of encrypted 16-byte blocks, bits 4-7.
    int encrypted_blocks() const { return (configuration >> 4) & 0x0f; }
    uint32_t message_counter_value() const {
        uint32_t v = 0;
        for (int i = message_counter.size() - 1; i >= 0; --i) {
            v = (v << 8) | uint8_t(message_counter[i]);
        }
        return v;
    }
    // True for the modes defined as encryption (DES-CBC 2 and 3, AES-CBC 4, 5 and 7,
    // AES-CTR 8, AES-GCM 9, AES-CCM 10, TLS 13). Other non-zero modes are reserved or
    // manufacturer specific and say nothing about the records: those are read as plain.
    bool encrypted() const {
        switch (encryption_mode()) {
            case 2:
            case 3:
            case 4:
            case 5:
            case 7:
            case 8:
            case 9:
            case 10:
            case 13:
                return true;
            default:
                return false;
        }
    }
};

// What a record's value means once decoded.
enum class value_kind { number, date, datetime, none };

// What the VIF and its extensions say about a record.
struct value_info {
    QString quantity;   // quantity name, with the suffixes of VIFEs that change the dimension
    QString qualifier;  // ".pos", ".lower_limit", ...: VIFEs that qualify the same quantity
    QString unit;       // base unit after scaling
    int exponent = 0;   // power of ten applied to the raw number
    double factor = 1;
    double offset = 0;  // added after scaling (Fahrenheit conversion)
    value_kind kind = value_kind::number;
    int record_error = 0;       // error code of a VIFE 0x00-0x1f, 0 = none
    bool manufacturer = false;  // manufacturer-specific VIF or VIFE: no standard meaning
    // First VIF, extension or VIFE the driver cannot interpret ("unsupported VIFE 0x..,
    // at byte n"); the record is skipped, its length still known from the DIF.
    QString unsupported;
};

// One decoded data record.
struct record {
    int offset = 0;   // byte offset of the DIF in the payload
    QByteArray dib;   // DIF and DIFEs
    QByteArray vib;   // VIF, VIFEs and plain-text unit
    QByteArray data;  // the data field as received
    int coding = 0;   // DIF bits 3-0
    function_field function = function_field::instantaneous;
    uint64_t storage = 0;
    uint32_t tariff = 0;
    uint32_t subunit = 0;
    value_info info;
    // double for numbers, QString for text or binary (hex), QDateTime for dates;
    // invalid when the record carries no value.
    QVariant value;
    // Why the record gives no value although it was read whole (unsupported VIF or VIFE,
    // invalid BCD digit, ...), with the byte offset; empty when the record was understood.
    QString skipped;

    bool numeric() const { return value.type() == QVariant::Double; }
};

struct decode_result {
    // "parsed", "parsed; <notes>", "encrypted", "decryption failed" or "error: ...[; <notes>]";
    // the notes name the skipped records and an odd header.
    QString status;
    // Why an encrypted payload was not decrypted ("encrypted") or why its decryption failed
    // ("decryption failed"), for the log; never holds key material.
    QString security_problem;
    bool decrypted = false;
    app_header header;
    std::vector<record> records;
    QByteArray manufacturer_data;      // bytes after a 0x0f/0x1f marker
    bool more_records_follow = false;  // the marker was 0x1f
    bool has_manufacturer_data = false;
};

}  // namespace mbus
