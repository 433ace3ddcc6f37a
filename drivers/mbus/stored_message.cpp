#include "stored_message.h"

#include <QJsonArray>

#include "eav.h"

namespace mbus {

namespace {

QString hex_text(const QByteArray& bytes) {
    return QString::fromLatin1(bytes.toHex());
}

QJsonObject header_json(const app_header& h) {
    QJsonObject o{{"ci", QString("%1").arg(h.ci, 2, 16, QChar('0'))}, {"type", h.kind}};
    if (h.kind == "long") {
        o["identification"] = h.identification;
        o["manufacturer"] = h.manufacturer;
        o["version"] = h.version;
        o["medium"] = h.medium;
    }
    if (h.has_status()) {
        o["access_number"] = h.access_number;
        o["status"] = h.status;
        o["configuration"] = h.configuration;
        o["encryption_mode"] = h.encryption_mode();
    }
    if (h.configuration_extension >= 0) {
        o["configuration_extension"] = h.configuration_extension;
    }
    if (h.has_afl) {
        QJsonObject afl;
        if (h.has_message_counter) {
            afl["message_counter"] = double(h.message_counter_value());
        }
        if (!h.mac.isEmpty()) {
            afl["mac"] = hex_text(h.mac);
        }
        o["afl"] = afl;
    }
    return o;
}

QJsonValue value_json(const QVariant& value) {
    if (value.type() == QVariant::DateTime) {
        return value.toDateTime().toString(Qt::ISODate);
    }
    if (value.type() == QVariant::Double) {
        return value.toDouble();
    }
    if (value.type() == QVariant::String) {
        return value.toString();
    }
    return QJsonValue::Null;
}

}  // namespace

QString coding_name(int coding) {
    static const char* const names[16] = {"none",  "int8",     "int16",     "int24",  "int32", "real32",
                                          "int48", "int64",    "selection", "bcd2",   "bcd4",  "bcd6",
                                          "bcd8",  "variable", "bcd12",     "special"};
    return names[coding & 0x0f];
}

QJsonObject record_json(const record& r) {
    // Every record has these members: filling a copy of an object that holds them already
    // replaces values in place, where inserting each key anew costs about twice as much.
    // The values are set through an iterator, in the sorted order of the keys.
    static const QJsonObject members{{"coding", ""},   {"data", ""},      {"dib", ""},
                                     {"function", ""}, {"obis_code", ""}, {"offset", 0},
                                     {"quantity", ""}, {"storage", 0},    {"subunit", 0},
                                     {"tariff", 0},    {"unit", ""},      {"value", QJsonValue::Null},
                                     {"vib", ""}};
    QJsonObject o = members;
    auto it = o.begin();
    *it++ = coding_name(r.coding);
    *it++ = hex_text(r.data);
    *it++ = hex_text(r.dib);
    *it++ = function_name(r.function);
    *it++ = obis_code(r);
    *it++ = r.offset;
    *it++ = r.info.quantity;
    *it++ = double(r.storage);
    *it++ = double(r.subunit);
    *it++ = double(r.tariff);
    *it++ = r.info.unit;
    *it++ = value_json(r.value);
    *it = hex_text(r.vib);
    if (r.info.record_error != 0) {
        o["record_error"] = r.info.record_error;
    }
    if (r.info.manufacturer) {
        o["manufacturer_specific"] = true;
    }
    if (!r.skipped.isEmpty()) {
        o["skipped"] = r.skipped;
    }
    return o;
}

QJsonObject message_data(const decode_result& decoded) {
    QJsonObject o{{"header", header_json(decoded.header)}};
    if (decoded.header.encrypted()) {
        o["decrypted"] = decoded.decrypted;
        if (!decoded.security_problem.isEmpty()) {
            o["security_problem"] = decoded.security_problem;
        }
    }
    QJsonArray records;
    for (const record& r : decoded.records) {
        records.append(record_json(r));
    }
    o["records"] = records;
    if (decoded.has_manufacturer_data) {
        o["manufacturer_data"] = hex_text(decoded.manufacturer_data);
        o["more_records_follow"] = decoded.more_records_follow;
    }
    return o;
}

}  // namespace mbus
