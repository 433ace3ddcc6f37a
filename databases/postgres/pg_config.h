#pragma once

#include <QByteArray>
#include <QJsonObject>
#include <QString>
#include <utility>
#include <vector>

namespace postgres_db {

// What the PostgreSQL store serves and how it is configured. The plugin's JSON file
// (plug_db_driver_postgres.json beside the plugin) holds:
//   "conninfo"          a libpq connection string ("host=db1 dbname=quillon user=q" or a
//                       postgresql:// URI); or the separate keys below
//   "host", "port", "dbname", "user", "password"   used when "conninfo" is absent
//                       (each one also overrides the same key of "conninfo")
//   "schema"            schema holding the tables (default "public"); created if missing
//   "connect_timeout"   seconds a connection attempt may take (default 5)
//   "lock_timeout"      ms a statement or a modem guard waits for a lock held by another
//                       session (default 5000)
//   "partition"         period of the value, event and uplink partitions: "month"
//                       (default), "week" or "day"
//   "partitions_ahead"  periods created in advance after the current one (default 2)
//   "purge_interval"    seconds between clean-ups of expired rows (default 60, 0 = off)
//   "purge_batch"       most rows deleted per table and clean-up (default 5000)
//   "devices"           optional registry seed, as for the other database plugins
inline constexpr const char* plugin_name = "db_driver_postgres";

enum class partition_unit { day, week, month };

struct pg_config {
    // Connection parameters for PQconnectdbParams, in order; the password among them.
    std::vector<std::pair<QByteArray, QByteArray>> parameters;
    QString schema = "public";
    int connect_timeout_s = 5;
    int lock_timeout_ms = 5000;
    partition_unit partition = partition_unit::month;
    int partitions_ahead = 2;
    int purge_interval_s = 60;
    int purge_batch = 5000;
    QJsonObject devices;

    // Reads the plugin configuration; throws std::runtime_error for a conninfo libpq
    // cannot parse or a schema name that is not a plain identifier. Unknown or mistyped
    // keys keep their defaults.
    static pg_config from_json(const QJsonObject& o);

    // Server, database and schema, without the password: names this store in messages
    // and tells two configurations of the same store apart.
    QString describe() const;
    QByteArray parameter(const QByteArray& key) const;
};

}  // namespace postgres_db
