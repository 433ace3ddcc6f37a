#include "stored_message.h"

#include <QJsonArray>

#include "eav.h"
#include "model/json_text.h"

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

const char* coding_text(int coding) {
    static const char* const names[16] = {"none",  "int8",     "int16",     "int24",  "int32", "real32",
                                          "int48", "int64",    "selection", "bcd2",   "bcd4",  "bcd6",
                                          "bcd8",  "variable", "bcd12",     "special"};
    return names[coding & 0x0f];
}

QString coding_name(int coding) {
    return QString::fromLatin1(coding_text(coding));
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

namespace {
using model::json_text_detail::object_writer;

// The text of header_json(h): the same members, written in the sorted order of their keys.
void append_header(QByteArray& out, const app_header& h) {
    object_writer o(out);
    const bool long_header = h.kind == "long";
    const bool status = h.has_status();
    if (status) {
        o.integer("access_number", h.access_number);
    }
    if (h.has_afl) {
        object_writer afl(o.key("afl"));
        if (!h.mac.isEmpty()) {
            afl.hex("mac", h.mac);
        }
        if (h.has_message_counter) {
            afl.integer("message_counter", h.message_counter_value());
        }
    }
    o.hex("ci", QByteArray(1, char(h.ci)));  // two lower-case digits, as header_json writes it
    if (status) {
        o.integer("configuration", h.configuration);
    }
    if (h.configuration_extension >= 0) {
        o.integer("configuration_extension", h.configuration_extension);
    }
    if (status) {
        o.integer("encryption_mode", h.encryption_mode());
    }
    if (long_header) {
        o.text("identification", h.identification);
        o.text("manufacturer", h.manufacturer);
        o.integer("medium", h.medium);
    }
    if (status) {
        o.integer("status", h.status);
    }
    o.text("type", h.kind);
    if (long_header) {
        o.integer("version", h.version);
    }
}

void append_value(QByteArray& out, const QVariant& value) {
    switch (value.type()) {
        case QVariant::DateTime:
            model::json_text_detail::append_iso_date(out, value.toDateTime());
            break;
        case QVariant::Double:
            model::json_text_detail::append_number(out, value.toDouble());
            break;
        case QVariant::String:
            model::json_text_detail::append_string(out, value.toString());
            break;
        default:
            out.append("null", 4);
    }
}

// The text of record_json(r), members in the sorted order of their keys.
void append_record(QByteArray& out, const record& r) {
    object_writer o(out);
    o.ascii("coding", coding_text(r.coding));
    o.hex("data", r.data);
    o.hex("dib", r.dib);
    o.ascii("function", function_text(r.function));
    if (r.info.manufacturer) {
        o.boolean("manufacturer_specific", true);
    }
    o.text("obis_code", obis_code(r));
    o.integer("offset", r.offset);
    o.text("quantity", r.info.quantity);
    if (r.info.record_error != 0) {
        o.integer("record_error", r.info.record_error);
    }
    if (!r.skipped.isEmpty()) {
        o.text("skipped", r.skipped);
    }
    o.number("storage", double(r.storage));
    o.integer("subunit", r.subunit);
    o.integer("tariff", r.tariff);
    o.text("unit", r.info.unit);
    append_value(o.key("value"), r.value);
    o.hex("vib", r.vib);
}

void append_message_data(QByteArray& out, const decode_result& decoded) {
    object_writer o(out);
    const bool encrypted = decoded.header.encrypted();
    if (encrypted) {
        o.boolean("decrypted", decoded.decrypted);
    }
    append_header(o.key("header"), decoded.header);
    if (decoded.has_manufacturer_data) {
        o.hex("manufacturer_data", decoded.manufacturer_data);
        o.boolean("more_records_follow", decoded.more_records_follow);
    }
    QByteArray& records = o.key("records");
    records.append('[');
    for (size_t i = 0; i < decoded.records.size(); ++i) {
        if (i > 0) {
            records.append(',');
        }
        append_record(records, decoded.records[i]);
    }
    records.append(']');
    if (encrypted && !decoded.security_problem.isEmpty()) {
        o.text("security_problem", decoded.security_problem);
    }
}
}  // namespace

QByteArray message_data_text(const decode_result& decoded) {
    QByteArray out;
    out.reserve(256 + 320 * int(decoded.records.size()));
    append_message_data(out, decoded);
    return out;
}

}  // namespace mbus
