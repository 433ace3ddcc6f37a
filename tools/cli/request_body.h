#pragma once

#include <QByteArray>
#include <QJsonArray>
#include <QJsonObject>
#include <QJsonValue>
#include <QString>
#include <QStringList>

// Conversions from command-line texts to the members of a command's body. Each throws
// tool::usage_error with a message that names the option and the offending text.
namespace cli {

// Seconds since 1970-01-01 UTC: a whole number as it is, or an ISO 8601 date
// ("2026-01-01"), date and time ("2026-01-01T10:00:00", a blank instead of the T is
// accepted) or either with a zone ("Z", "+02:00"); a text without a zone is UTC.
qint64 parse_time(const QString& text, const QString& option);

// Modem ids, each option value one id or a comma-separated list: [77, 78].
QJsonArray parse_modems(const QStringList& values);

// Texts, each option value one text or a comma-separated list.
QJsonArray parse_texts(const QStringList& values);

// A whole number for --limit and --step.
qint64 parse_integer(const QString& text, const QString& option);

// "key=value" of --set: the value as JSON when it reads as JSON (42, true, null,
// "text", [1,2], {"a":1}), as a string otherwise. Returns the pair as a one-key object.
QJsonObject parse_assignment(const QString& text);

// A body given as JSON text; `source` names where it came from, for the error.
QJsonObject parse_body(const QByteArray& text, const QString& source);

}  // namespace cli
