#pragma once

namespace sqlite_db {

class backend;

// Tables whose rows carry a ttl and are purged once it has passed.
inline constexpr const char* expiring_tables[] = {"ul_messages", "dl_messages", "dev_values", "dev_events"};

// Brings the file's schema to the current version, step by step, each step in one
// transaction. A file written by a newer version is refused.
void migrate_schema(backend& db);

}  // namespace sqlite_db
