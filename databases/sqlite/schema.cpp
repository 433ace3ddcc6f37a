#include "databases/sqlite/schema.h"

#include <QSqlQuery>
#include <QString>
#include <QStringList>

#include "databases/sqlite/backend.h"

namespace sqlite_db {
namespace {

// Version 1: the whole store. Times are milliseconds since the epoch (NULL for none);
// a NULL ttl never expires. Indexes lead with the modem so that a one-modem history
// query is an index range, never a scan.
const QStringList version_1 = {
    "CREATE TABLE ul_messages ("
    " id INTEGER PRIMARY KEY,"
    " modem_id INTEGER NOT NULL, station_id INTEGER NOT NULL, ttl INTEGER, timestamp INTEGER,"
    " time_detected INTEGER, bs_timezone_offset INTEGER NOT NULL, phy TEXT,"
    " snr INTEGER NOT NULL, rssi INTEGER NOT NULL, tag TEXT, unique_id INTEGER NOT NULL,"
    " data TEXT, extended_data TEXT, parse_status TEXT, hw_type TEXT,"
    " protocol TEXT, payload BLOB, tz_mismatch INTEGER NOT NULL,"
    " dl_phy TEXT, last_dl_bs_aver_busyness REAL NOT NULL,"
    " last_dl_bs_busyness REAL NOT NULL, iterator INTEGER NOT NULL)",
    "CREATE INDEX ul_modem_time ON ul_messages (modem_id, timestamp)",
    "CREATE INDEX ul_modem_detected ON ul_messages (modem_id, time_detected)",
    "CREATE INDEX ul_modem_tag_time ON ul_messages (modem_id, tag, timestamp)",
    "CREATE INDEX ul_ttl ON ul_messages (ttl) WHERE ttl IS NOT NULL",

    "CREATE TABLE dl_messages ("
    " id INTEGER PRIMARY KEY, db_id TEXT NOT NULL UNIQUE,"
    " modem_id INTEGER NOT NULL, f_ack INTEGER NOT NULL, f_system INTEGER NOT NULL,"
    " station_id INTEGER NOT NULL, frequency INTEGER NOT NULL, dl_phy INTEGER NOT NULL,"
    " timeout INTEGER NOT NULL, ttl INTEGER, timestamp INTEGER, api_key TEXT,"
    " user_id TEXT, dl_status INTEGER NOT NULL, data TEXT,"
    " payload BLOB, protocol TEXT)",
    "CREATE INDEX dl_modem_time ON dl_messages (modem_id, timestamp)",
    "CREATE INDEX dl_ttl ON dl_messages (ttl) WHERE ttl IS NOT NULL",

    // value_type keeps the QVariant type so that 5, 5.0, true and "5" read back as given.
    "CREATE TABLE dev_values ("
    " id INTEGER PRIMARY KEY,"
    " modem_id INTEGER NOT NULL, timestamp INTEGER, obis_code TEXT, tag TEXT,"
    " value, value_type INTEGER NOT NULL, message_id TEXT, ttl INTEGER)",
    "CREATE INDEX values_modem_time ON dev_values (modem_id, timestamp)",
    "CREATE INDEX values_modem_obis_time ON dev_values (modem_id, obis_code, timestamp)",
    "CREATE INDEX values_modem_tag_time ON dev_values (modem_id, tag, timestamp)",
    "CREATE INDEX values_ttl ON dev_values (ttl) WHERE ttl IS NOT NULL",

    "CREATE TABLE dev_events ("
    " id INTEGER PRIMARY KEY,"
    " modem_id INTEGER NOT NULL, timestamp INTEGER, event_code INTEGER NOT NULL,"
    " message_id TEXT, message TEXT, extended_data TEXT,"
    " parameter INTEGER NOT NULL, ttl INTEGER)",
    "CREATE INDEX events_modem_time ON dev_events (modem_id, timestamp)",
    "CREATE INDEX events_ttl ON dev_events (ttl) WHERE ttl IS NOT NULL",

    "CREATE TABLE devices ("
    " modem_id INTEGER PRIMARY KEY, protocol TEXT, hw_type TEXT,"
    " clients TEXT)",

    // One row per state entry; value is the entry as a one-element JSON array.
    "CREATE TABLE state_entries ("
    " modem_id INTEGER NOT NULL, key TEXT NOT NULL, value TEXT NOT NULL,"
    " PRIMARY KEY (modem_id, key))",
    "CREATE TABLE state_marks (modem_id INTEGER PRIMARY KEY, mark INTEGER NOT NULL)",

    // queue_count: number of queues in the set; modems with 0 are not listed.
    "CREATE TABLE dl_queue_sets ("
    " modem_id INTEGER PRIMARY KEY, queues TEXT NOT NULL, queue_count INTEGER NOT NULL)",
    "CREATE INDEX queue_sets_listed ON dl_queue_sets (queue_count, modem_id)",
};

// Version 2: a meter's link-layer address and AES key in the device registry (the key as
// 32 lower-case hex digits; NULL when none).
const QStringList version_2 = {
    "ALTER TABLE devices ADD COLUMN manufacturer TEXT", "ALTER TABLE devices ADD COLUMN identification TEXT",
    "ALTER TABLE devices ADD COLUMN version INTEGER",   "ALTER TABLE devices ADD COLUMN medium INTEGER",
    "ALTER TABLE devices ADD COLUMN aes_key TEXT",
};

const QList<QStringList> migrations = {version_1, version_2};

int stored_version(backend& db) {
    db.run_plain("CREATE TABLE IF NOT EXISTS schema_version (version INTEGER NOT NULL)");
    QSqlQuery& q = db.statement("SELECT MAX(version) FROM schema_version");
    db.run(q);
    const int version = q.next() ? q.value(0).toInt() : 0;
    q.finish();
    return version;
}

}  // namespace

void migrate_schema(backend& db) {
    const int current = migrations.size();
    const int version = stored_version(db);
    if (version > current)
        db.fail("refused",
                QString("schema version %1 is newer than this plugin's %2").arg(version).arg(current));
    for (int v = version; v < current; ++v) {
        backend::transaction tx(db);
        for (const QString& sql : migrations[v])
            db.run_plain(sql);
        QSqlQuery& q = db.statement("INSERT INTO schema_version (version) VALUES (:v)");
        q.bindValue(":v", v + 1);
        db.run(q);
        tx.commit();
    }
}

}  // namespace sqlite_db
