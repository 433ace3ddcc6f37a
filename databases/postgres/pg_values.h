#pragma once

#include <libpq-fe.h>

#include <QByteArray>
#include <QDateTime>
#include <QJsonDocument>
#include <QJsonObject>
#include <QString>
#include <QStringList>
#include <QVariant>
#include <memory>
#include <vector>

#include "model/deferred_document.h"

// Values passed to and read from the server, all in libpq's text format. Every value
// travels as a statement parameter; none is ever written into a statement's text.
namespace postgres_db {

// The parameters of one statement, $1, $2, ... in the order added.
class params {
public:
    params& add(int v);
    params& add(qint64 v);
    params& add(double v);
    params& add(bool v);
    params& add(const QString& v);  // a null QString is stored as ''
    params& add_null();
    // Milliseconds since the epoch; NULL for an invalid time.
    params& add_time(const QDateTime& t);
    params& add_bytes(const QByteArray& bytes);
    // Compact JSON text; NULL for a null document.
    params& add_document(const QJsonDocument& d);
    // The document as its compact text already written, when there is one (then the
    // document itself is not even built).
    params& add_document(const model::deferred_document& d, const QByteArray& compact_text);
    params& add_object(const QJsonObject& o);
    // A text[] array literal; each member quoted, so any text survives.
    params& add_text_array(const QStringList& items);
    params& add_raw(const QByteArray& text, bool is_null = false);

    int count() const { return int(m_values.size()); }
    const char* const* values() const;

private:
    std::vector<QByteArray> m_values;
    std::vector<bool> m_null;
    mutable std::vector<const char*> m_pointers;
};

// A text[] array literal of the items (also used for the columns of a multi-row insert).
QByteArray text_array(const QStringList& items);
// One member of an array literal: quoted text, or NULL.
void append_array_member(QByteArray& literal, const QByteArray& text, bool is_null);

// The rows of a result.
class result {
public:
    explicit result(PGresult* r = nullptr) : m_result(r, &PQclear) {}
    int rows() const { return m_result ? PQntuples(m_result.get()) : 0; }
    bool is_null(int row, int column) const { return PQgetisnull(m_result.get(), row, column); }
    QString text(int row, int column) const;
    int to_int(int row, int column) const;
    qint64 to_int64(int row, int column) const;
    double to_double(int row, int column) const;
    bool to_bool(int row, int column) const;
    QDateTime to_time(int row, int column) const;  // invalid for NULL
    QByteArray to_bytes(int row, int column) const;
    QJsonDocument to_document(int row, int column) const;  // null for NULL
    QJsonObject to_object(int row, int column) const;
    // Rows changed by an INSERT, UPDATE or DELETE.
    int affected() const;
    PGresult* get() const { return m_result.get(); }

private:
    const char* raw(int row, int column) const { return PQgetvalue(m_result.get(), row, column); }
    std::shared_ptr<PGresult> m_result;
};

// A stored value and its QVariant type: the text of the value (NULL for an invalid
// QVariant) and the type that restores it.
QByteArray variant_text(const QVariant& v);
QVariant variant_from(const QString& text, bool is_null, int type);

}  // namespace postgres_db
