// The modems' guards of the PostgreSQL plugin: advisory locks shared by every instance on
// the same schema, so that two instances never interleave one modem's queue updates.

#include <QElapsedTimer>
#include <thread>

#include "tests/databases/postgres_support.h"

using namespace pg_test;

namespace {

model::dl_queues one_queue(const QString& entry_type) {
    model::dl_queues set;
    set.dl["q"].entries["1"].type = entry_type;
    return set;
}

class PostgresGuards : public ::testing::Test {
protected:
    void TearDown() override {
        first = stores{};
        second = stores{};
        raw_session().exec("DROP SCHEMA IF EXISTS " + m_schema + " CASCADE");
    }

    // True when the second instance's guard of the modem could not be had (it waited
    // for the first instance until its lock time-out and gave up).
    bool second_must_wait(int modem) {
        try {
            second.state->lock(modem);
        } catch (const std::runtime_error& e) {
            EXPECT_TRUE(QString(e.what()).contains(QString("guard of modem %1 not taken").arg(modem)))
                << e.what();
            return true;
        }
        return false;
    }

    QString m_schema = unique_schema("guard");
    // Two instances of the service: one session each, short lock time-outs.
    stores first = open_stores(config_for(m_schema, 300));
    stores second = open_stores(config_for(m_schema, 300));
};

}  // namespace

TEST_F(PostgresGuards, AModemHeldByOneInstanceWaitsInTheOtherUntilReleasedAndOtherModemsDoNot) {
    std::shared_ptr<void> held = first.state->lock(5);
    // Another modem is free at once (a wait would end in the lock time-out).
    EXPECT_TRUE(second.state->lock(6));
    EXPECT_TRUE(second_must_wait(5));

    // The second instance waits (with a longer time-out) while the first holds the guard,
    // and gets it once the first lets go.
    stores patient = open_stores(config_for(m_schema, 10000));
    qint64 waited_ms = -1;
    std::thread waiter([&] {
        QElapsedTimer timer;
        timer.start();
        std::shared_ptr<void> guard = patient.state->lock(5);
        waited_ms = timer.elapsed();
    });
    QThread::msleep(400);
    held.reset();
    waiter.join();
    EXPECT_GE(waited_ms, 350);
    EXPECT_LT(waited_ms, 10000);
    patient = stores{};
    EXPECT_FALSE(second_must_wait(5));
}

TEST_F(PostgresGuards, NestedGuardsOfOneInstanceHoldTheModemUntilTheLastIsReleased) {
    std::shared_ptr<void> outer = first.state->lock(7);
    std::shared_ptr<void> inner = first.state->lock(7);  // never waits for itself
    EXPECT_EQ(first.db->guard_depth(7), 2);
    inner.reset();
    EXPECT_TRUE(second_must_wait(7));
    outer.reset();
    EXPECT_EQ(first.db->guard_depth(7), 0);
    EXPECT_FALSE(second_must_wait(7));
}

// A queue set changed inside a batch is not committed when the queue step ends; the
// guard stays held until the batch commits, so the other instance never reads the old
// set and overwrites the change.
TEST_F(PostgresGuards, AGuardReleasedInsideABatchIsHeldUntilTheBatchCommits) {
    interfaces::IWriteBatch* batch = first.state->write_batch();
    ASSERT_NE(batch, nullptr);
    batch->begin_batch();
    batch->begin_item();
    {
        std::shared_ptr<void> guard = first.state->lock(8);
        first.state->queues().save(8, one_queue("from the first"), 1);
    }
    batch->end_item(true);
    EXPECT_TRUE(second_must_wait(8));
    batch->commit_batch();

    std::shared_ptr<void> guard = second.state->lock(8);
    EXPECT_EQ(second.state->queues().load(8).dl["q"].entries["1"].type, "from the first");
}

TEST_F(PostgresGuards, AGuardDiesWithItsSession) {
    std::shared_ptr<void> held = first.state->lock(9);
    EXPECT_TRUE(second_must_wait(9));
    // The instance ends without releasing (a crash): the server frees the lock.
    first = stores{};
    held.reset();
    EXPECT_FALSE(second_must_wait(9));
}
