// Batches of writes in the SQLite plugin: several messages' writes in one transaction,
// each message a unit that can be undone alone, nothing visible to other connections
// before the commit.

#include <QDir>
#include <QFileInfo>

#include "tests/databases/sqlite_support.h"

using namespace sqlite_test;

namespace {

model::ul_message uplink(int modem, qint64 seconds) {
    model::ul_message m;
    m.modem_id = modem;
    m.timestamp = at(seconds);
    m.time_detected = at(seconds);
    m.tag = "t";
    m.ttl = live_ttl();
    m.unique_id = seconds;
    return m;
}

model::dev_value value(int modem, qint64 seconds, double number) {
    model::dev_value v;
    v.modem_id = modem;
    v.timestamp = at(seconds);
    v.ttl = live_ttl();
    v.obis_code = "1.8.0";
    v.tag = "t";
    v.value = number;
    return v;
}

class SqliteBatch : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(m_dir.isValid());
        m_path = m_dir.filePath("batch.db");
        m_stores = open_stores(config_for(m_path));
    }

    qint64 rows(const QString& table) {
        raw_connection other(m_path);
        return other.scalar("SELECT COUNT(*) FROM " + table).toLongLong();
    }

    QTemporaryDir m_dir;
    QString m_path;
    stores m_stores;
};

}  // namespace

TEST_F(SqliteBatch, AllStoresShareOneBatchAndOtherConnectionsSeeItOnlyAfterCommit) {
    interfaces::IWriteBatch* batch = m_stores.messages->write_batch();
    ASSERT_NE(batch, nullptr);
    // One back end per file: every store object hands out the same batch.
    EXPECT_EQ(m_stores.eav->write_batch(), batch);
    EXPECT_EQ(m_stores.state->write_batch(), batch);
    EXPECT_EQ(m_stores.clients->write_batch(), batch);

    batch->begin_batch();
    EXPECT_TRUE(batch->batch_open());
    batch->begin_item();
    m_stores.messages->ul().save(uplink(5, T0));
    // A store call with its own transaction joins the batch instead of committing.
    m_stores.eav->records().save_values({value(5, T0, 1.5), value(5, T0 + 1, 2.5)});
    m_stores.state->begin(5);
    m_stores.state->set(5, "common", interfaces::state_value(QString("{}")));
    m_stores.state->end(5, 0);
    batch->end_item(true);
    EXPECT_EQ(rows("ul_messages"), 0);
    EXPECT_EQ(rows("dev_values"), 0);

    batch->commit_batch();
    EXPECT_FALSE(batch->batch_open());
    EXPECT_EQ(rows("ul_messages"), 1);
    EXPECT_EQ(rows("dev_values"), 2);
    EXPECT_EQ(rows("state_entries"), 1);

    // With the batch closed, every call commits by itself again.
    m_stores.messages->ul().save(uplink(6, T0));
    EXPECT_EQ(rows("ul_messages"), 2);
}

TEST_F(SqliteBatch, AnUndoneItemLeavesItsNeighboursStored) {
    interfaces::IWriteBatch* batch = m_stores.messages->write_batch();
    batch->begin_batch();

    batch->begin_item();
    m_stores.messages->ul().save(uplink(1, T0));
    batch->end_item(true);

    batch->begin_item();
    m_stores.messages->ul().save(uplink(2, T0));
    m_stores.eav->records().save_values({value(2, T0, 7.0)});
    batch->end_item(false);

    batch->begin_item();
    m_stores.eav->records().save_values({value(3, T0, 9.0)});
    // An item inside an item (a handler that runs an event loop): undone alone.
    batch->begin_item();
    m_stores.eav->records().save_values({value(3, T0 + 5, 10.0)});
    batch->end_item(false);
    batch->end_item(true);

    batch->commit_batch();
    raw_connection other(m_path);
    EXPECT_EQ(other.scalar("SELECT group_concat(modem_id) FROM ul_messages").toString(), "1");
    EXPECT_EQ(other.scalar("SELECT group_concat(value) FROM dev_values").toString(), "9.0");
}

TEST_F(SqliteBatch, ABusyFileFailsTheBatchAndClosingTheStoreCommitsAnOpenOne) {
    m_stores = stores{};
    m_stores = open_stores(QJsonObject{{"path", m_path}, {"purge_interval", 0}, {"busy_timeout", 50}});
    interfaces::IWriteBatch* batch = m_stores.messages->write_batch();
    // Item calls without a batch change nothing.
    batch->begin_item();
    batch->end_item(false);
    m_stores.messages->ul().save(uplink(1, T0));
    EXPECT_EQ(rows("ul_messages"), 1);

    {
        // Another process holds the write lock past the busy time-out.
        raw_connection other(m_path);
        other.exec("BEGIN IMMEDIATE");
        try {
            batch->begin_batch();
            ADD_FAILURE() << "a batch began on a locked file";
        } catch (const std::runtime_error& e) {
            EXPECT_TRUE(QString(e.what()).contains("batch.db")) << e.what();
        }
        EXPECT_FALSE(batch->batch_open());
        other.exec("ROLLBACK");
    }

    batch->begin_batch();
    batch->begin_item();
    m_stores.messages->ul().save(uplink(2, T0));
    batch->end_item(true);
    // Releasing every store object closes the connection: the open batch is committed
    // rather than lost.
    m_stores = stores{};
    EXPECT_EQ(rows("ul_messages"), 2);
}

namespace {

// Files the process holds open whose name SQLite gives its temporary files ("etilqs_"),
// for instance the journal of a savepoint's original pages once it outgrows memory.
int open_sqlite_temp_files() {
    int n = 0;
    const QDir fds("/proc/self/fd");
    for (const QFileInfo& fd : fds.entryInfoList(QDir::Files | QDir::System | QDir::NoDotAndDotDot))
        n += fd.symLinkTarget().contains("etilqs_");
    return n;
}

}  // namespace

TEST_F(SqliteBatch, ABurstOfUnitsKeepsItsUndoJournalInMemory) {
    interfaces::IWriteBatch* batch = m_stores.messages->write_batch();
    batch->begin_batch();
    // Each unit changes pages its predecessors changed, so each unit's undo journal gets
    // copies of them: 200 units of 20 values are some megabytes of original pages, far
    // past the 64 KiB after which SQLite moves such a journal into a file by default
    // (an open, writes and an unlink per burst on the service's thread).
    for (int unit = 0; unit < 200; ++unit) {
        batch->begin_item();
        m_stores.messages->ul().save(uplink(unit % 50, T0 + unit));
        QList<model::dev_value> values;
        for (int i = 0; i < 20; ++i)
            values << value(unit % 50, T0 + unit * 100 + i, i);
        m_stores.eav->records().save_values(values);
        batch->end_item(true);
    }
    EXPECT_EQ(open_sqlite_temp_files(), 0);
    batch->commit_batch();
    EXPECT_EQ(rows("dev_values"), 4000);
}
