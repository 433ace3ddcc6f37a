// The SQLite store inside a service: commits only write the log, a syncer thread makes
// them durable and says so on the owner's thread, a checkpointer thread copies the log
// back into the file and keeps it bounded, and a sync the disk refuses is reported.

#include <QCoreApplication>
#include <QFile>
#include <QFileInfo>
#include <QTest>
#include <QThread>
#include <memory>

#include "databases/sqlite/backend.h"
#include "databases/sqlite/wal_syncer.h"
#include "tests/databases/sqlite_support.h"

using namespace sqlite_test;

namespace {

// The disk threads start only where an event loop can carry their reports.
class SqliteDurability : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        if (!QCoreApplication::instance()) {
            static int argc = 1;
            static char name[] = "sqlite_durability_test";
            static char* argv[] = {name, nullptr};
            // Kept to the end of the process: Qt's SQL registry outlives the tests.
            new QCoreApplication(argc, argv);
        }
    }

    QString path(const QString& name) const { return m_dir.filePath(name); }

    QTemporaryDir m_dir;
};

void insert_row(sqlite_db::backend& db, int n) {
    sqlite_db::backend::transaction t(db);
    QSqlQuery& q = db.statement("INSERT INTO filler(n, body) VALUES (:n, :body)");
    q.bindValue(":n", n);
    q.bindValue(":body", QString(2000, QChar('a' + n % 26)));
    db.run(q);
    t.commit();
}

}  // namespace

TEST_F(SqliteDurability, EveryHandedCommitBecomesDurableAndIsToldOnTheOwnersThread) {
    const QString wal = path("file.db-wal");
    QFile file(wal);
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    file.write("frames");
    file.close();

    sqlite_db::wal_syncer syncer(wal);
    QThread* told_on = nullptr;
    int told = 0;
    QObject context;
    QObject::connect(&syncer, &sqlite_db::wal_syncer::advanced, &context, [&] {
        told_on = QThread::currentThread();
        ++told;
    });
    syncer.committed(1);
    syncer.committed(2);
    syncer.committed(3);
    syncer.committed(2);  // an older ticket changes nothing
    QString error;
    ASSERT_TRUE(syncer.wait(3, &error)) << error.toStdString();
    EXPECT_EQ(syncer.durable(), 3u);
    // One sync may cover several commits, never more syncs than commits.
    EXPECT_GE(syncer.syncs(), 1u);
    EXPECT_LE(syncer.syncs(), 3u);
    ASSERT_TRUE(QTest::qWaitFor([&] { return told > 0; }, 5000));
    EXPECT_EQ(told_on, QCoreApplication::instance()->thread());
}

TEST_F(SqliteDurability, ARefusedSyncIsReportedAndNothingBecomesDurable) {
    sqlite_db::wal_syncer syncer(path("gone/file.db-wal"));
    QString reported;
    QObject context;
    QObject::connect(&syncer, &sqlite_db::wal_syncer::failed, &context,
                     [&](const QString& error) { reported = error; });
    syncer.committed(1);
    QString error;
    EXPECT_FALSE(syncer.wait(1, &error));
    EXPECT_TRUE(error.startsWith("cannot find the write-ahead log " + path("gone/file.db-wal")))
        << error.toStdString();
    EXPECT_EQ(syncer.durable(), 0u);
    ASSERT_TRUE(QTest::qWaitFor([&] { return !reported.isEmpty(); }, 5000));
    EXPECT_EQ(reported, error);
    // Later commits do not become durable either.
    syncer.committed(2);
    EXPECT_FALSE(syncer.wait(2, &error));
}

TEST_F(SqliteDurability, EachCommitHasATicketThatBecomesDurable) {
    sqlite_db::backend db(sqlite_db::sqlite_config::from_json(config_for(path("t.db"))));
    ASSERT_NE(db.durable_commits(), nullptr);
    db.run_plain("CREATE TABLE filler(n INTEGER, body TEXT)");
    const quint64 before = db.commit_ticket();
    insert_row(db, 1);
    insert_row(db, 2);
    {
        // Statements joined into one transaction are one commit.
        sqlite_db::backend::transaction outer(db);
        insert_row(db, 3);
        insert_row(db, 4);
        outer.commit();
    }
    EXPECT_EQ(db.commit_ticket(), before + 3);
    EXPECT_TRUE(db.wait_durable(db.commit_ticket()));
    EXPECT_GE(db.durable_ticket(), before + 3);
    raw_connection other(path("t.db"));
    EXPECT_EQ(other.scalar("SELECT COUNT(*) FROM filler").toInt(), 4);
}

// The event loop's connection copies nothing back itself; the checkpointer does, and
// the log stays bounded under a steady stream of commits.
TEST_F(SqliteDurability, TheLogIsCopiedBackOffTheLoopAndStaysBounded) {
    QJsonObject config = config_for(path("w.db"));
    config["checkpoint_pages"] = 16;
    sqlite_db::backend db(sqlite_db::sqlite_config::from_json(config));
    QSqlQuery& own = db.statement("PRAGMA wal_autocheckpoint");
    db.run(own);
    ASSERT_TRUE(own.next());
    EXPECT_EQ(own.value(0).toInt(), 0);
    own.finish();

    db.run_plain("CREATE TABLE filler(n INTEGER, body TEXT)");
    qint64 largest = 0;
    for (int n = 0; n < 3000; ++n) {
        // At a service's pace: bursts of commits with a moment between them (a tight
        // loop of commits would never let a checkpoint finish between two of them).
        if (n % 5 == 0)
            QThread::msleep(2);
        insert_row(db, n);
        largest = std::max(largest, QFileInfo(path("w.db-wal")).size());
    }
    EXPECT_GT(db.checkpoints(), 0u);
    // 3000 rows of 2 KB are about 1800 pages (7 MB) of log without checkpoints. On a
    // quiet machine the log stays near 16 times 16 pages; on one short of CPU the
    // copies lag further, but the log stays well below what was written.
    EXPECT_LT(largest, qint64(1000) * 4096);
    EXPECT_GT(QFileInfo(path("w.db")).size(), qint64(1000) * 4096);  // copied into the file
}

TEST_F(SqliteDurability, WithoutFullSyncNoTicketsAreKept) {
    QJsonObject config = config_for(path("n.db"));
    config["synchronous"] = "NORMAL";
    sqlite_db::backend db(sqlite_db::sqlite_config::from_json(config));
    EXPECT_EQ(db.durable_commits(), nullptr);
}
