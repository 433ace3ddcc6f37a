#pragma once

#include <QByteArray>
#include <QDateTime>
#include <QJsonDocument>
#include <QJsonObject>
#include <QSqlQuery>
#include <QString>
#include <QStringList>
#include <QVariant>

// Conversions between the records' fields and the values stored in the columns.
namespace sqlite_db {

// Milliseconds since the epoch, or NULL for an invalid time.
QVariant time_value(const QDateTime& t);
QDateTime time_from(const QVariant& v);

// Compact JSON text, or NULL for a null document.
QVariant document_value(const QJsonDocument& d);
// The same as UTF-8 text; a null array for a null document.
QByteArray document_text(const QJsonDocument& d);
QJsonDocument document_from(const QVariant& v);
QString object_text(const QJsonObject& o);
QJsonObject object_from(const QVariant& v);

// Text columns that queries filter on are never NULL.
QString text_value(const QString& s);

// The members of a list as a JSON array text.
QString json_list(const QStringList& items);

// A list filter "<column> IN (...)". A short list gets one placeholder per member
// (:<name>0, :<name>1, ...), so the planner knows its size and can weigh an index on the
// column; a longer one is bound as one JSON array (:<name>) read with json_each.
inline constexpr int max_listed_items = 32;
QString in_filter(const QString& column, const QString& name, int count);
void bind_in(QSqlQuery& query, const QString& name, const QStringList& items);

// The bounds of an inclusive time range in milliseconds, each whole-second bound taking
// in its whole second; an invalid bound leaves that side open.
qint64 range_from(const QDateTime& from);
qint64 range_to(const QDateTime& to);

// A record limit as SQLite's LIMIT reads it: 0 means no limit (-1).
int sql_limit(int limit);

qint64 now_ms();

}  // namespace sqlite_db
