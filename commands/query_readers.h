#pragma once

#include <QDateTime>
#include <QJsonObject>
#include <QJsonValue>
#include <QList>
#include <QString>
#include <QStringList>
#include <optional>

#include "commands/command_context.h"
#include "model/queries.h"

// Readers of the request parts that many commands share: modem lists, time ranges,
// limits and the history queries. They never fail: bad members take their defaults.
namespace query_readers {

// The most elements of a modem list that a command reads: the cap on the records of a
// reply, applied to modems, since each costs store look-ups before anything is found.
constexpr int max_listed_modems = 300000;

// A modem id given as a JSON number. A non-number, a fraction or a value outside int32
// gives nothing and an Error line.
std::optional<int> modem_id_from_json(const QJsonValue& value, const command_context& context);
// A modem id given as a decimal object key, with the same rules.
std::optional<int> modem_id_from_key(const QString& key, const command_context& context);

// The valid ids of a JSON array, in array order, each once (where first listed), without
// ownership filtering. A value that is present but not an array gives an empty list and
// an Error line; bad and repeated ids give at most a dozen Error lines in all. Only the
// first max_listed_modems elements are read (one more Error line when there are more).
QList<int> modem_ids(const QJsonValue& ids, const command_context& context);
// The same, keeping only the modems this instance's driver serves (others dropped silently).
QList<int> owned_modem_ids(const QJsonValue& ids, const command_context& context);

// "from": seconds since the epoch as UTC; the epoch when absent or not a number.
QDateTime read_from(const QJsonObject& body);
// "to": seconds since the epoch as UTC; the current UTC time when absent or not a number.
QDateTime read_to(const QJsonObject& body);
// "limit": default 3000, values above 300000 lowered to 300000.
int read_limit(const QJsonObject& body);
// The string members of an array; other elements are skipped.
QStringList read_strings(const QJsonValue& value);

model::roll_query read_roll_query(const QJsonObject& body, const command_context& context);
model::value_query read_value_query(const QJsonObject& body, const command_context& context);
model::dl_query read_dl_query(const QJsonObject& body, const command_context& context);

}  // namespace query_readers
