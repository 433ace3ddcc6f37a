#include "databases/postgres/pg_values.h"

#include <QJsonValue>

namespace postgres_db {

params& params::add(int v) {
    return add_raw(QByteArray::number(v));
}

params& params::add(qint64 v) {
    return add_raw(QByteArray::number(v));
}

params& params::add(double v) {
    // Shortest text that reads back as the same double.
    return add_raw(QString::number(v, 'g', QLocale::FloatingPointShortest).toUtf8());
}

params& params::add(bool v) {
    return add_raw(v ? "true" : "false");
}

params& params::add(const QString& v) {
    return add_raw(v.toUtf8());
}

params& params::add_null() {
    return add_raw(QByteArray(), true);
}

params& params::add_time(const QDateTime& t) {
    return t.isValid() ? add(qint64(t.toMSecsSinceEpoch())) : add_null();
}

params& params::add_bytes(const QByteArray& bytes) {
    return add_raw("\\x" + bytes.toHex());
}

params& params::add_document(const QJsonDocument& d) {
    return d.isNull() ? add_null() : add_raw(d.toJson(QJsonDocument::Compact));
}

params& params::add_document(const model::deferred_document& d, const QByteArray& compact_text) {
    return compact_text.isEmpty() ? add_document(d.document()) : add_raw(compact_text);
}

params& params::add_object(const QJsonObject& o) {
    return add_raw(QJsonDocument(o).toJson(QJsonDocument::Compact));
}

params& params::add_text_array(const QStringList& items) {
    return add_raw(text_array(items));
}

params& params::add_raw(const QByteArray& text, bool is_null) {
    m_values.push_back(text);
    m_null.push_back(is_null);
    return *this;
}

const char* const* params::values() const {
    m_pointers.clear();
    for (size_t i = 0; i < m_values.size(); ++i)
        m_pointers.push_back(m_null[i] ? nullptr : m_values[i].constData());
    return m_pointers.data();
}

void append_array_member(QByteArray& literal, const QByteArray& text, bool is_null) {
    if (literal.size() > 1)
        literal += ',';
    if (is_null) {
        literal += "NULL";
        return;
    }
    literal += '"';
    for (char c : text) {
        if (c == '"' || c == '\\')
            literal += '\\';
        literal += c;
    }
    literal += '"';
}

QByteArray text_array(const QStringList& items) {
    QByteArray literal = "{";
    for (const QString& item : items)
        append_array_member(literal, item.toUtf8(), false);
    return literal + "}";
}

QString result::text(int row, int column) const {
    return QString::fromUtf8(raw(row, column));
}

int result::to_int(int row, int column) const {
    return QByteArray(raw(row, column)).toInt();
}

qint64 result::to_int64(int row, int column) const {
    return QByteArray(raw(row, column)).toLongLong();
}

double result::to_double(int row, int column) const {
    return QByteArray(raw(row, column)).toDouble();
}

bool result::to_bool(int row, int column) const {
    return raw(row, column)[0] == 't';
}

QDateTime result::to_time(int row, int column) const {
    return is_null(row, column) ? QDateTime()
                                : QDateTime::fromMSecsSinceEpoch(to_int64(row, column), Qt::UTC);
}

QByteArray result::to_bytes(int row, int column) const {
    if (is_null(row, column))
        return {};
    size_t length = 0;
    unsigned char* bytes = PQunescapeBytea(reinterpret_cast<const unsigned char*>(raw(row, column)), &length);
    if (!bytes)
        return {};
    QByteArray out(reinterpret_cast<const char*>(bytes), int(length));
    PQfreemem(bytes);
    return out;
}

QJsonDocument result::to_document(int row, int column) const {
    return is_null(row, column) ? QJsonDocument() : QJsonDocument::fromJson(QByteArray(raw(row, column)));
}

QJsonObject result::to_object(int row, int column) const {
    return to_document(row, column).object();
}

int result::affected() const {
    return m_result ? QByteArray(PQcmdTuples(m_result.get())).toInt() : 0;
}

QByteArray variant_text(const QVariant& v) {
    if (!v.isValid() || v.isNull())
        return {};
    if (v.userType() == QMetaType::Double || v.userType() == QMetaType::Float)
        return QString::number(v.toDouble(), 'g', QLocale::FloatingPointShortest).toUtf8();
    if (v.userType() == QMetaType::QByteArray)
        return v.toByteArray().toHex();
    return v.toString().toUtf8();
}

QVariant variant_from(const QString& text, bool is_null, int type) {
    if (is_null || type == QMetaType::UnknownType)
        return QVariant();
    if (type == QMetaType::QByteArray)
        return QByteArray::fromHex(text.toLatin1());
    QVariant v(text);
    if (type != QMetaType::QString)
        v.convert(type);
    return v;
}

}  // namespace postgres_db
