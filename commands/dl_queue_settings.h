#pragma once

#include <QJsonObject>
#include <QJsonValue>
#include <QString>

#include "model/dl_queues.h"

// Queue-wide settings and entry fields as "dl_queue" requests give them.
namespace dl_queue_settings {

// "create" takes "ttl" as a number of seconds; "update" takes it only as a boolean,
// stored as 1 or 0.
enum class ttl_form { seconds, flag };

// "repeat", "start_from", "start_ts", "timeout", "lock" or "ttl".
bool is_setting(const QString& key);
// Applies one setting; a value of another JSON type than the setting takes is ignored.
void apply(model::dl_queue& queue, const QString& key, const QJsonValue& value, ttl_form ttl);

// Changes the fields that fields holds with the right JSON type; the others keep their values.
void update_entry(model::dl_queue_entry& entry, const QJsonObject& fields);
// A new, never sent entry; "type" defaults to "typical", radio parameters to 0.
model::dl_queue_entry new_entry(const QJsonObject& fields);

// A JSON number truncated to int; false (value unchanged) for other types and for
// numbers outside the int range.
bool read_truncated(const QJsonValue& value, int& out);

}  // namespace dl_queue_settings
