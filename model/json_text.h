#pragma once

#include <QByteArray>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QJsonValue>
#include <QString>
#include <cstdint>

#include "model/records.h"

// Compact JSON text of the published records, written straight into a byte buffer.
// The text is byte for byte what QJsonDocument::toJson(Compact) makes of the record's
// to_json() object (keys in sorted order, the same number forms and escapes), without
// building the object first: publication writes several of these per uplink.
namespace model {

void append_json(QByteArray& out, const dev_value& v);
void append_json(QByteArray& out, const dev_event& e);
void append_json(QByteArray& out, const ul_message& m);

// QJsonDocument::toJson(Compact) of an object or array document, in a fraction of its time.
QByteArray compact_text(const QJsonDocument& d);

template <typename Record>
QByteArray json_text(const Record& record) {
    QByteArray out;
    out.reserve(512);
    append_json(out, record);
    return out;
}

namespace json_text_detail {
// Numbers are doubles in JSON: integral ones are written in full (no exponent) up to
// 2^64, every other one in its shortest form.
void append_number(QByteArray& out, double d);
void append_integer(QByteArray& out, int64_t v);
// Quoted and escaped as Qt does: ", \ and controls escaped (\b \f \n \r \t or \u00XX),
// other text as UTF-8, an unpaired surrogate as \uXXXX.
void append_string(QByteArray& out, const QString& s);
void append_value(QByteArray& out, const QJsonValue& v);
void append_object(QByteArray& out, const QJsonObject& o);
void append_array(QByteArray& out, const QJsonArray& a);
// An object or array document as its compact text; any other document as null.
void append_document(QByteArray& out, const QJsonDocument& d);
}  // namespace json_text_detail

}  // namespace model
