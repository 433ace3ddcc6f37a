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
QJsonDocument document_from(const QVariant& v);
QString object_text(const QJsonObject& o);
QJsonObject object_from(const QVariant& v);

// Text columns that queries filter on are never NULL.
QString text_value(const QString& s);

// The members of a filter list as a JSON array, for "IN (SELECT value FROM json_each(...))".
QString json_list(const QStringList& items);

// The bounds of an inclusive time range; an invalid bound leaves that side open.
qint64 range_from(const QDateTime& from);
qint64 range_to(const QDateTime& to);

// A record limit as SQLite's LIMIT reads it: 0 means no limit (-1).
int sql_limit(int limit);

qint64 now_ms();

}  // namespace sqlite_db
