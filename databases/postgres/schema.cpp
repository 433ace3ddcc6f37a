#include "databases/postgres/schema.h"

#include <QList>
#include <QStringList>

#include "databases/postgres/pg_link.h"

namespace postgres_db {
namespace {

// Version 1: the whole store. Times are milliseconds since the epoch (NULL for none);
// a NULL ttl never expires. Uplinks, values and events are partitioned by time
// (partitions are added as time goes on); every index leads with the modem, so that a
// one-modem history query reads an index range of each partition in time order.
const QStringList version_1 = {
    "CREATE TABLE ul_messages ("
    " id bigserial, modem_id integer NOT NULL, station_id integer NOT NULL, ttl bigint,"
    " \"timestamp\" bigint, time_detected bigint, bs_timezone_offset integer NOT NULL, phy text,"
    " snr integer NOT NULL, rssi integer NOT NULL, tag text NOT NULL, unique_id bigint NOT NULL,"
    " data text, extended_data text, parse_status text, hw_type text, protocol text, payload bytea,"
    " tz_mismatch boolean NOT NULL, dl_phy text, last_dl_bs_aver_busyness double precision NOT NULL,"
    " last_dl_bs_busyness double precision NOT NULL, iterator integer NOT NULL)"
    " PARTITION BY RANGE (\"timestamp\")",
    "CREATE TABLE ul_messages_default PARTITION OF ul_messages DEFAULT",
    "CREATE INDEX ul_modem_time ON ul_messages (modem_id, \"timestamp\", id)",
    "CREATE INDEX ul_modem_detected ON ul_messages (modem_id, time_detected, id)",
    "CREATE INDEX ul_modem_tag_time ON ul_messages (modem_id, tag, \"timestamp\", id)",
    "CREATE INDEX ul_modem_stored ON ul_messages (modem_id, id)",
    "CREATE INDEX ul_ttl ON ul_messages (ttl)",

    "CREATE TABLE dl_messages ("
    " id bigserial PRIMARY KEY, db_id text NOT NULL UNIQUE, modem_id integer NOT NULL,"
    " f_ack integer NOT NULL, f_system integer NOT NULL, station_id integer NOT NULL,"
    " frequency integer NOT NULL, dl_phy integer NOT NULL, timeout integer NOT NULL, ttl bigint,"
    " \"timestamp\" bigint, api_key text, user_id text, dl_status integer NOT NULL, data text,"
    " payload bytea, protocol text)",
    "CREATE INDEX dl_modem_time ON dl_messages (modem_id, \"timestamp\", id)",
    "CREATE INDEX dl_ttl ON dl_messages (ttl)",

    // value_type keeps the value's type, so that 5, 5.0, true and "5" read back as given.
    "CREATE TABLE dev_values ("
    " id bigserial, modem_id integer NOT NULL, \"timestamp\" bigint, obis_code text NOT NULL,"
    " tag text NOT NULL, value text, value_type integer NOT NULL, message_id text, ttl bigint)"
    " PARTITION BY RANGE (\"timestamp\")",
    "CREATE TABLE dev_values_default PARTITION OF dev_values DEFAULT",
    "CREATE INDEX values_modem_time ON dev_values (modem_id, \"timestamp\", id)",
    "CREATE INDEX values_modem_obis_time ON dev_values (modem_id, obis_code, \"timestamp\", id)",
    "CREATE INDEX values_modem_tag_time ON dev_values (modem_id, tag, \"timestamp\", id)",
    "CREATE INDEX values_ttl ON dev_values (ttl)",

    "CREATE TABLE dev_events ("
    " id bigserial, modem_id integer NOT NULL, \"timestamp\" bigint, event_code integer NOT NULL,"
    " message_id text, message text, extended_data text, parameter integer NOT NULL, ttl bigint)"
    " PARTITION BY RANGE (\"timestamp\")",
    "CREATE TABLE dev_events_default PARTITION OF dev_events DEFAULT",
    "CREATE INDEX events_modem_time ON dev_events (modem_id, \"timestamp\", id)",
    "CREATE INDEX events_modem_code_time ON dev_events (modem_id, event_code, \"timestamp\", id)",
    "CREATE INDEX events_ttl ON dev_events (ttl)",

    "CREATE TABLE devices ("
    " modem_id integer PRIMARY KEY, protocol text NOT NULL, hw_type text NOT NULL, clients text NOT NULL)",

    // One row per state entry; value is the entry as a one-element JSON array.
    "CREATE TABLE state_entries ("
    " modem_id integer NOT NULL, key text NOT NULL, value text NOT NULL, PRIMARY KEY (modem_id, key))",
    "CREATE TABLE state_marks (modem_id integer PRIMARY KEY, mark integer NOT NULL)",

    // queue_count: number of queues in the set; modems with 0 are not listed.
    "CREATE TABLE dl_queue_sets ("
    " modem_id integer PRIMARY KEY, queues text NOT NULL, queue_count integer NOT NULL)",
    "CREATE INDEX queue_sets_listed ON dl_queue_sets (queue_count, modem_id)",
};

const QList<QStringList> migrations = {version_1};

}  // namespace

int current_schema_version() {
    return migrations.size();
}

void migrate_schema(pg_link& link, const QString& schema, int lock_space) {
    link.run_plain("BEGIN");
    try {
        link.run("SELECT pg_advisory_xact_lock($1, $2)", params().add(lock_space).add(schema_lock_key));
        // Created only when missing: making one needs a right on the database that a user
        // of an existing schema may not have. The name is a checked plain identifier.
        if (link.run("SELECT 1 FROM pg_namespace WHERE nspname = $1", params().add(schema)).rows() == 0)
            link.run_plain("CREATE SCHEMA " + schema);
        link.run_plain("CREATE TABLE IF NOT EXISTS schema_version (version integer NOT NULL)");
        const result r = link.run_plain("SELECT max(version) FROM schema_version");
        const int version = r.is_null(0, 0) ? 0 : r.to_int(0, 0);
        const int current = current_schema_version();
        if (version > current)
            link.fail("refused", QString("schema \"%1\" is at version %2, newer than this plugin's %3; "
                                         "run a service version that knows it")
                                     .arg(schema)
                                     .arg(version)
                                     .arg(current));
        for (int v = version; v < current; ++v) {
            for (const QString& sql : migrations[v])
                link.run_plain(sql);
            link.run("INSERT INTO schema_version (version) VALUES ($1)", params().add(v + 1));
        }
        link.run_plain("COMMIT");
    } catch (const interfaces::store_unavailable&) {
        throw;
    } catch (...) {
        if (link.up())
            link.run_plain("ROLLBACK");
        throw;
    }
}

}  // namespace postgres_db
