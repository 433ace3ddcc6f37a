#pragma once

#include <QString>

namespace postgres_db {

class pg_link;

// The schema version this plugin writes.
int current_schema_version();

// The second key of the advisory lock under which instances change the schema (the
// migration, new partitions); modem guards use the modem id there, and no modem has this.
inline constexpr int schema_lock_key = -2147483647 - 1;

// Creates the schema if it is missing and brings its tables to the current version,
// step by step in one transaction that holds an advisory lock, so that instances
// starting together migrate once. A schema written by a newer version is refused
// (std::runtime_error) and left untouched.
void migrate_schema(pg_link& link, const QString& schema, int lock_space);

}  // namespace postgres_db
