// The SQLite plugin's file: restarts, shared connection, commits, concurrent readers,
// refused files, query plans and the clean-up of expired rows.

#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QRegularExpression>
#include <stdexcept>

#include "databases/sqlite/backend.h"
#include "databases/sqlite/eav_db.h"
#include "databases/sqlite/messages_db.h"
#include "tests/databases/sqlite_support.h"

using namespace sqlite_test;

namespace {

model::ul_message uplink(int modem, qint64 seconds, QDateTime ttl = live_ttl()) {
    model::ul_message m;
    m.modem_id = modem;
    m.timestamp = at(seconds);
    m.time_detected = at(seconds);
    m.tag = "t";
    m.ttl = ttl;
    m.payload = QByteArray::fromHex("beef");
    return m;
}

model::dev_value value(int modem, qint64 seconds, QDateTime ttl = live_ttl()) {
    model::dev_value v;
    v.modem_id = modem;
    v.timestamp = at(seconds);
    v.obis_code = "1.8.0";
    v.tag = "t";
    v.value = 1.5;
    v.ttl = ttl;
    return v;
}

size_t roll_size(interfaces::IMessagesDatabase& messages, int modem) {
    model::roll_query q;
    q.modem_id = {modem};
    q.limit = 0;
    model::per_modem<model::ul_message> out;
    messages.ul().get_roll(out, q);
    return out[modem].size();
}

// The error text of creating the messages object under a configuration; empty if none.
std::string start_up_error(const QJsonObject& config) {
    try {
        sqlite_factory()->create_messages(config, nullptr);
    } catch (const std::runtime_error& e) {
        return e.what();
    }
    return {};
}

// The plan SQLite chooses for a statement, one detail line per step, joined by " | ".
QString query_plan(raw_connection& raw, const QString& sql) {
    QSqlQuery q(raw.db());
    EXPECT_TRUE(q.prepare("EXPLAIN QUERY PLAN " + sql)) << q.lastError().text().toStdString();
    QRegularExpressionMatchIterator names = QRegularExpression(":[a-z_0-9]+").globalMatch(sql);
    while (names.hasNext())
        q.bindValue(names.next().captured(), 1);
    EXPECT_TRUE(q.exec()) << q.lastError().text().toStdString();
    QStringList details;
    while (q.next())
        details << q.value(3).toString();
    return details.join(" | ");
}

}  // namespace

TEST(SqliteFile, DataSurvivesANewBackendOnTheSameFile) {
    QTemporaryDir dir;
    const QJsonObject config = config_for(dir.filePath("store.db"));
    const int before = plugin_connections();
    QString db_id;
    {
        stores s = open_stores(config);
        EXPECT_EQ(plugin_connections(), before + 1);  // the four objects share one connection
        s.messages->ul().save(uplink(7, T0));
        model::dl_message dl;
        dl.modem_id = 7;
        dl.timestamp = at(T0);
        s.messages->dl().save(dl);
        db_id = dl.db_id;
        s.eav->records().save_values({value(7, T0)});
        s.state->set(7, "common", QByteArray("{\"a\": 1}"));
        model::dl_queues set;
        set.dl["q"].ttl = 5;
        s.state->queues().save(7, set, 1);
        s.clients->set_device(7, {"proto7", "X", {"c1"}});
    }
    EXPECT_EQ(plugin_connections(), before);  // released with the last object

    stores s = open_stores(config);
    EXPECT_EQ(roll_size(*s.messages, 7), 1u);
    EXPECT_EQ(s.messages->dl().get(db_id).modem_id, 7);
    EXPECT_EQ(s.eav->value_count(), 1);
    EXPECT_EQ(s.state->get(7, "common"), QJsonValue(QJsonObject{{"a", 1}}));
    EXPECT_EQ(s.state->queues().load(7).dl.at("q").ttl, 5);
    EXPECT_EQ(s.clients->clients_store().clients(7), QStringList{"c1"});

    // A second file is a second connection.
    QTemporaryDir other;
    stores s2 = open_stores(config_for(other.filePath("other.db")));
    EXPECT_EQ(plugin_connections(), before + 2);
    EXPECT_EQ(roll_size(*s2.messages, 7), 0u);
}

TEST(SqliteFile, EveryWriteIsCommittedWhenTheCallReturns) {
    QTemporaryDir dir;
    const QString path = dir.filePath("store.db");
    stores s = open_stores(config_for(path));
    raw_connection raw(path);
    EXPECT_EQ(raw.scalar("PRAGMA journal_mode").toString(), "wal");

    s.messages->ul().save(uplink(7, T0));
    EXPECT_EQ(raw.scalar("SELECT COUNT(*) FROM ul_messages").toInt(), 1);

    QList<model::dev_value> values;
    for (int i = 0; i < 50; ++i)
        values << value(7, T0 + i);
    s.eav->records().save_values(values);
    EXPECT_EQ(raw.scalar("SELECT COUNT(*) FROM dev_values").toInt(), 50);

    s.state->set(7, "k", QJsonValue(1));
    EXPECT_EQ(raw.scalar("SELECT COUNT(*) FROM state_entries").toInt(), 1);
}

TEST(SqliteFile, ReadersAndWritersDoNotBlockEachOther) {
    QTemporaryDir dir;
    const QString path = dir.filePath("store.db");
    stores s = open_stores(config_for(path));
    s.messages->ul().save(uplink(7, T0));

    // Another connection holds an open write transaction: the store still reads the
    // committed state, without the uncommitted row.
    raw_connection writer(path);
    writer.exec("BEGIN IMMEDIATE");
    writer.exec(
        "INSERT INTO ul_messages (modem_id, station_id, timestamp, time_detected, bs_timezone_offset, snr,"
        " rssi, tag, unique_id, tz_mismatch, last_dl_bs_aver_busyness, last_dl_bs_busyness, iterator)"
        " VALUES (7, 0, 1700000001000, 1700000001000, 0, 0, 0, 't', 0, 0, 0, 0, 0)");
    EXPECT_EQ(roll_size(*s.messages, 7), 1u);
    writer.exec("COMMIT");
    EXPECT_EQ(roll_size(*s.messages, 7), 2u);

    // Another connection holds an open read transaction: the store still writes.
    raw_connection reader(path);
    reader.exec("BEGIN");
    EXPECT_EQ(reader.scalar("SELECT COUNT(*) FROM ul_messages").toInt(), 2);
    s.messages->ul().save(uplink(7, T0 + 2));
    EXPECT_EQ(reader.scalar("SELECT COUNT(*) FROM ul_messages").toInt(), 2);  // its snapshot
    reader.exec("COMMIT");
    EXPECT_EQ(reader.scalar("SELECT COUNT(*) FROM ul_messages").toInt(), 3);
}

TEST(SqliteFile, UnusableFilesFailStartUpWithAClearError) {
    QTemporaryDir dir;

    const QString corrupt = dir.filePath("corrupt.db");
    QFile file(corrupt);
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    file.write(QByteArray(8192, 'x'));
    file.close();
    std::string error = start_up_error(config_for(corrupt));
    EXPECT_NE(error.find(corrupt.toStdString()), std::string::npos) << error;
    EXPECT_NE(error.find("not a database"), std::string::npos) << error;

    const QString missing_dir = dir.filePath("no/such/dir/store.db");
    error = start_up_error(config_for(missing_dir));
    EXPECT_NE(error.find(missing_dir.toStdString()), std::string::npos) << error;
    EXPECT_NE(error.find("cannot open"), std::string::npos) << error;

    error = start_up_error(config_for(dir.path()));  // a directory, not a file
    EXPECT_NE(error.find("cannot open"), std::string::npos) << error;

    QJsonObject bad_sync = config_for(dir.filePath("ok.db"));
    bad_sync["synchronous"] = "SOMETIMES";
    error = start_up_error(bad_sync);
    EXPECT_NE(error.find("synchronous"), std::string::npos) << error;

    // A file written by a newer schema is refused rather than misread.
    const QString newer = dir.filePath("newer.db");
    open_stores(config_for(newer));
    {
        raw_connection raw(newer);
        raw.exec("INSERT INTO schema_version (version) VALUES (99)");
    }
    error = start_up_error(config_for(newer));
    EXPECT_NE(error.find("schema version 99"), std::string::npos) << error;
}

TEST(SqliteFile, SchemaIsCreatedOnceAndSynchronousIsConfigurable) {
    QTemporaryDir dir;
    const QString path = dir.filePath("store.db");
    QJsonObject config = config_for(path);
    config["synchronous"] = "FULL";
    open_stores(config);
    open_stores(config);  // a second start migrates nothing
    raw_connection raw(path);
    EXPECT_EQ(raw.scalar("SELECT COUNT(*) FROM schema_version").toInt(), 2);
    EXPECT_EQ(raw.scalar("SELECT MAX(version) FROM schema_version").toInt(), 2);
}

// A file of schema version 1 (no meter columns) is migrated: its devices stay, without
// keys, and take keys afterwards.
TEST(SqliteFile, VersionOneRegistryIsMigratedWithItsDevices) {
    QTemporaryDir dir;
    const QString path = dir.filePath("store.db");
    open_stores(config_for(path));
    {
        raw_connection raw(path);
        for (const char* column : {"manufacturer", "identification", "version", "medium", "aes_key"})
            raw.exec(QString("ALTER TABLE devices DROP COLUMN %1").arg(column));
        raw.exec("DELETE FROM schema_version WHERE version = 2");
        raw.exec(
            "INSERT INTO devices (modem_id, protocol, hw_type, clients) VALUES (5, 'proto7', 'X', "
            "'[\"c1\"]')");
    }
    stores s = open_stores(config_for(path));
    EXPECT_EQ(s.clients->devices().at(5), (model::device_record{"proto7", "X", {"c1"}, {}}));
    EXPECT_TRUE(s.clients->meter_link(5).empty());
    model::device_record keyed{"proto7", "X", {"c1"}, {}};
    keyed.meter.aes_key = QByteArray(16, '\x5a');
    s.clients->set_device(5, keyed);
    EXPECT_EQ(s.clients->meter_link(5).aes_key, QByteArray(16, '\x5a'));
    raw_connection raw(path);
    EXPECT_EQ(raw.scalar("SELECT aes_key FROM devices WHERE modem_id = 5").toString(),
              "5a5a5a5a5a5a5a5a5a5a5a5a5a5a5a5a");
}

// An acknowledged uplink must survive a power loss: every commit is synced unless the
// operator opts out. SQLite reports the level as 2 for FULL and 1 for NORMAL.
TEST(SqliteFile, CommitsAreSyncedToDiskUnlessNormalIsChosen) {
    QTemporaryDir dir;
    auto level = [&](const QJsonObject& config) {
        sqlite_db::backend db(sqlite_db::sqlite_config::from_json(config));
        QSqlQuery& q = db.statement("PRAGMA synchronous");
        db.run(q);
        const int value = q.next() ? q.value(0).toInt() : -1;
        q.finish();
        return value;
    };
    EXPECT_EQ(level(config_for(dir.filePath("default.db"))), 2);
    QJsonObject normal = config_for(dir.filePath("normal.db"));
    normal["synchronous"] = "normal";
    EXPECT_EQ(level(normal), 1);
}

TEST(SqliteFile, OneModemHistoryQueriesAreServedByIndexes) {
    QTemporaryDir dir;
    const QString path = dir.filePath("store.db");
    stores s = open_stores(config_for(path));
    QList<model::dev_value> values;
    for (int i = 0; i < 6000; ++i)
        values << value(i % 4, T0 + i);
    s.eav->records().save_values(values);

    raw_connection raw(path);
    // Every variant searches an index that leads with the modem; none scans the table.
    for (bool latest : {false, true}) {  // the newest records are read backwards through the same index
        for (bool detected : {false, true}) {
            const QString plan = query_plan(raw, sqlite_db::roll_query_sql(detected, 0, latest));
            EXPECT_TRUE(plan.contains(detected
                                          ? "USING INDEX ul_modem_detected (modem_id=? AND time_detected>?"
                                          : "USING INDEX ul_modem_time (modem_id=? AND timestamp>?"))
                << plan.toStdString();
            EXPECT_FALSE(plan.contains("TEMP B-TREE")) << plan.toStdString();  // already in time order
        }
    }
    QString plan = query_plan(raw, sqlite_db::roll_query_sql(false, 1));
    EXPECT_TRUE(plan.contains("USING INDEX ul_modem_tag_time (modem_id=? AND tag=?")) << plan.toStdString();
    for (int tags : {3, 40}) {  // several tags, and a list long enough to go as JSON
        plan = query_plan(raw, sqlite_db::roll_query_sql(false, tags));
        EXPECT_TRUE(plan.contains("SEARCH ul_messages USING INDEX ul_modem_")) << plan.toStdString();
        EXPECT_FALSE(plan.contains("SCAN ul_messages")) << plan.toStdString();
    }

    plan = query_plan(raw, sqlite_db::value_query_sql(false, 0, 0));
    EXPECT_TRUE(plan.contains("USING INDEX values_modem_time (modem_id=? AND timestamp>?"))
        << plan.toStdString();
    plan = query_plan(raw, sqlite_db::value_query_sql(false, 0, 1));
    EXPECT_TRUE(plan.contains("USING INDEX values_modem_obis_time (modem_id=? AND obis_code=?"))
        << plan.toStdString();
    plan = query_plan(raw, sqlite_db::value_query_sql(false, 1, 0));
    EXPECT_TRUE(plan.contains("USING INDEX values_modem_tag_time (modem_id=? AND tag=?"))
        << plan.toStdString();
    for (bool ends : {false, true}) {
        plan = query_plan(raw, sqlite_db::value_query_sql(ends, 2, 40));
        EXPECT_TRUE(plan.contains("SEARCH dev_values USING INDEX values_modem_")) << plan.toStdString();
        EXPECT_FALSE(plan.contains("SCAN dev_values")) << plan.toStdString();
    }
}

TEST(SqliteFile, ExpiredRowsArePurgedInBoundedBatches) {
    QTemporaryDir dir;
    const QString path = dir.filePath("store.db");
    stores s = open_stores(config_for(path));
    for (int i = 0; i < 5; ++i)
        s.messages->ul().save(uplink(7, T0 + i, past_ttl()));
    s.messages->ul().save(uplink(7, T0 + 9));
    model::ul_message no_ttl = uplink(7, T0 + 10, QDateTime());  // no ttl: never expires
    s.messages->ul().save(no_ttl);
    s.eav->records().save_values({value(7, T0, past_ttl()), value(7, T0 + 1, past_ttl()), value(7, T0 + 2)});

    EXPECT_EQ(s.messages->uplink_count(), 7);  // counted until purged
    EXPECT_EQ(roll_size(*s.messages, 7), 2u);
    EXPECT_EQ(s.messages->purge_expired(2), 2);
    EXPECT_EQ(s.messages->purge_expired(10), 3);
    EXPECT_EQ(s.messages->purge_expired(10), 0);
    EXPECT_EQ(s.messages->uplink_count(), 2);
    raw_connection raw(path);
    EXPECT_EQ(raw.scalar("SELECT COUNT(*) FROM ul_messages").toInt(), 2);
    EXPECT_EQ(raw.scalar("SELECT COUNT(*) FROM dev_values").toInt(), 3);  // the EAV object's own tables

    EXPECT_EQ(s.eav->purge_expired(1), 1);
    EXPECT_EQ(s.eav->purge_expired(0), 1);  // 0: every expired row
    EXPECT_EQ(raw.scalar("SELECT COUNT(*) FROM dev_values").toInt(), 1);
}

TEST(SqliteFile, CheckpointPagesSetWhenTheLogIsCopiedBackIntoTheFile) {
    // The database file's size tells whether checkpoints ran: until one does, new pages
    // live in the write-ahead log only.
    auto file_pages_after_writes = [](const QString& path, int checkpoint_pages) {
        QJsonObject config = config_for(path);
        config["checkpoint_pages"] = checkpoint_pages;
        stores s = open_stores(config);
        const qint64 before = QFileInfo(path).size();
        for (int i = 0; i < 300; ++i) {
            s.eav->records().save_values({value(i, T0 + i), value(i, T0 + i + 1)});
        }
        const qint64 after = QFileInfo(path).size();
        const qint64 log = QFileInfo(path + "-wal").size();
        return std::make_tuple(before, after, log);
    };
    QTemporaryDir dir;
    const auto [before_off, after_off, log_off] = file_pages_after_writes(dir.filePath("off.db"), 0);
    EXPECT_EQ(after_off, before_off);
    // 300 commits of at least four pages each (row, three modem indexes), 4 KiB apiece.
    EXPECT_GT(log_off, 300 * 4 * 4096);

    const auto [before_on, after_on, log_on] = file_pages_after_writes(dir.filePath("on.db"), 50);
    EXPECT_GT(after_on, before_on);
    // The log restarts after each checkpoint instead of growing with every commit.
    EXPECT_LT(log_on, log_off / 4);
}

TEST(SqliteFile, ABatchWhoseTransactionSQLiteRolledBackFailsItsCommit) {
    QTemporaryDir dir;
    const QString path = dir.filePath("store.db");
    sqlite_db::backend db(sqlite_db::sqlite_config::from_json(config_for(path)));
    sqlite_db::messages_database messages(std::shared_ptr<sqlite_db::backend>(&db, [](auto*) {}));
    db.begin_batch();
    db.begin_item();
    messages.ul().save(uplink(1, T0));
    db.end_item(true);
    db.begin_item();
    messages.ul().save(uplink(2, T0));
    // What SQLite does by itself on a full disk or an I/O error inside a transaction.
    db.run_plain("ROLLBACK");
    db.end_item(false);
    // Later messages of the batch are written outside any transaction; the batch still
    // reports that its earlier messages are gone, so none of it is acknowledged.
    db.begin_item();
    db.end_item(true);
    EXPECT_THROW(db.commit_batch(), std::runtime_error);
    EXPECT_FALSE(db.batch_open());
    EXPECT_EQ(roll_size(messages, 1), 0u);

    // The next batch works again.
    db.begin_batch();
    db.begin_item();
    messages.ul().save(uplink(3, T0));
    db.end_item(true);
    db.commit_batch();
    EXPECT_EQ(roll_size(messages, 3), 1u);
}

TEST(SqliteFile, MaxPageCountFailsWritesAsAFullDiskAndKeepsWhatWasCommitted) {
    QTemporaryDir dir;
    const QString path = dir.filePath("store.db");
    {
        stores s = open_stores(config_for(path));  // the schema, unlimited
        s.eav->records().save_values({value(1, T0)});
    }
    const int pages = raw_connection(path).scalar("PRAGMA page_count").toInt();
    ASSERT_GT(pages, 0);

    QJsonObject config = config_for(path);
    config["max_page_count"] = pages + 8;
    stores s = open_stores(config);
    int saved = 0;
    std::string error;
    // A value row is a few dozen bytes: 8 pages of 4 KiB (with three index pages per
    // commit at least) are full long before 2000 rows.
    try {
        for (; saved < 2000; ++saved)
            s.eav->records().save_values({value(1, T0 + 1 + saved)});
    } catch (const std::runtime_error& e) {
        error = e.what();
    }
    EXPECT_LT(saved, 2000);
    EXPECT_NE(error.find("full"), std::string::npos) << error;
    EXPECT_EQ(raw_connection(path).scalar("SELECT COUNT(*) FROM dev_values").toInt(), 1 + saved);
    EXPECT_LE(raw_connection(path).scalar("PRAGMA page_count").toInt(), pages + 8);
}

TEST(SqliteFile, MaxPageCountZeroOrMistypedLeavesTheFileUnlimited) {
    for (const QJsonValue& limit : {QJsonValue(0), QJsonValue(-5), QJsonValue("10")}) {
        QTemporaryDir dir;
        QJsonObject config = config_for(dir.filePath("store.db"));
        config["max_page_count"] = limit;
        stores s = open_stores(config);
        // A limit of 10 pages (or below the schema's own size) would stop the first growth.
        for (int i = 0; i < 300; ++i)
            s.eav->records().save_values({value(i, T0 + i), value(i, T0 + i + 1)});
        EXPECT_EQ(raw_connection(dir.filePath("store.db")).scalar("SELECT COUNT(*) FROM dev_values").toInt(),
                  600);
    }
}
