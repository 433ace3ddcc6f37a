#pragma once

#include <QJsonObject>
#include <QString>

namespace sqlite_db {

// What the SQLite store serves and how it is configured. The plugin's JSON file
// (plug_db_driver_sqlite.json beside the plugin) holds:
//   "path"            database file; relative paths are taken from the working
//                     directory (default "quillon.db")
//   "synchronous"     "FULL" (default: every commit reaches the disk before anything
//                     speaking of it leaves; inside a service a syncer thread syncs) or
//                     "NORMAL" (a power loss may cost the last acknowledged
//                     transactions; a process crash costs nothing)
//   "purge_interval"  seconds between clean-ups of expired rows (default 60, 0 = off)
//   "purge_batch"     most rows deleted per table and clean-up (default 500)
//   "busy_timeout"    ms to wait for another process's write lock (default 5000)
//   "checkpoint_pages"  write-ahead-log pages after which the log is copied back into
//                     the file, on a thread of its own inside a service (default 1000;
//                     0 = never, for an outside checkpointer)
//   "max_page_count"  most pages the file may grow to (default 0 = SQLite's own limit);
//                     a write beyond it fails as on a full disk
//   "devices"         optional registry seed: {"77": {"protocol": ..., "hw_type": ...,
//                     "clients": [...]}}
// It serves all four database objects (messages, values and events, driver state
// with the downlink queues, device registry) from one file.
inline constexpr const char* plugin_name = "db_driver_sqlite";

struct sqlite_config {
    QString path = "quillon.db";  // absolute after from_json
    bool synchronous_full = true;
    int purge_interval_s = 60;
    int purge_batch = 500;
    int busy_timeout_ms = 5000;
    int checkpoint_pages = 1000;
    int max_page_count = 0;  // 0: no limit of our own
    QJsonObject devices;

    // Reads the plugin configuration; unknown or mistyped keys keep their defaults.
    static sqlite_config from_json(const QJsonObject& o);
};

}  // namespace sqlite_db
