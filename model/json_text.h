#pragma once

#include <QByteArray>
#include <QDateTime>
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
// Bytes as a string of lower-case hexadecimal digits (nothing in it needs escaping).
void append_hex(QByteArray& out, const QByteArray& bytes);
// Text that needs no escaping (printable ASCII without " and \\), quoted.
void append_ascii(QByteArray& out, const char* text);
// QDateTime::toString(Qt::ISODate), quoted: "" for an invalid time.
void append_iso_date(QByteArray& out, const QDateTime& t);

// Writes the members of one object in the order given, which must be the sorted order
// of their keys (the order a QJsonObject keeps). Closes the object when it goes.
class object_writer {
public:
    explicit object_writer(QByteArray& out);
    ~object_writer();
    object_writer(const object_writer&) = delete;
    object_writer& operator=(const object_writer&) = delete;

    // Starts the next member; its value is then appended to the buffer returned.
    QByteArray& key(const char* name, int length);
    template <int N>
    QByteArray& key(const char (&name)[N]) {
        return key(name, N - 1);
    }

    template <int N>
    void integer(const char (&name)[N], int64_t v) {
        append_number(key(name), double(v));
    }
    template <int N>
    void number(const char (&name)[N], double v) {
        append_number(key(name), v);
    }
    template <int N>
    void seconds(const char (&name)[N], const QDateTime& t) {
        integer(name, t.toSecsSinceEpoch());
    }
    template <int N>
    void text(const char (&name)[N], const QString& s) {
        append_string(key(name), s);
    }
    template <int N>
    void ascii(const char (&name)[N], const char* text) {
        append_ascii(key(name), text);
    }
    template <int N>
    void hex(const char (&name)[N], const QByteArray& bytes) {
        append_hex(key(name), bytes);
    }
    template <int N>
    void document(const char (&name)[N], const QJsonDocument& d) {
        append_document(key(name), d);
    }
    template <int N>
    void boolean(const char (&name)[N], bool b) {
        b ? key(name).append("true", 4) : key(name).append("false", 5);
    }
    // An undefined value leaves its key out, as it does in a QJsonObject.
    template <int N>
    void value(const char (&name)[N], const QJsonValue& v) {
        if (!v.isUndefined()) {
            append_value(key(name), v);
        }
    }

private:
    QByteArray& m_out;
    int m_members = 0;
};
}  // namespace json_text_detail

}  // namespace model
