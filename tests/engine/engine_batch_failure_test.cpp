// A burst whose store transaction fails as a whole (its commit fails, or the database
// drops it after an error) must cost no delivery that did not fail by itself.

#include <stdexcept>

#include "engine_fixture.h"

namespace {

// A batch that can fail its next commit or lose its transaction at a given unit.
class scripted_batch : public interfaces::IWriteBatch {
public:
    int m_fail_commits = 0;   // how many commits fail from now on
    int m_lose_at_unit = -1;  // the unit (counted from 1 over all batches) whose end reports the loss
    int m_units = 0;
    int m_commits = 0;
    bool m_open = false;
    bool m_lost = false;  // as a database that rolled the transaction back: until the commit

    void begin_batch() override { m_open = true; }
    void begin_item() override {}
    bool end_item(bool) override {
        m_lost = m_lost || ++m_units == m_lose_at_unit;
        return !m_lost;
    }
    void commit_batch() override {
        m_open = false;
        ++m_commits;
        if (m_lost) {
            m_lost = false;
            throw std::runtime_error("the transaction was rolled back");
        }
        if (m_fail_commits > 0) {
            --m_fail_commits;
            throw std::runtime_error("disk I/O error");
        }
    }
    bool batch_open() const override { return m_open; }
};

// The in-memory messages store, offering the scripted batch.
class batching_messages : public interfaces::IMessagesDatabase {
public:
    batching_messages(std::shared_ptr<interfaces::IMessagesDatabase> inner, scripted_batch& batch)
        : m_inner(std::move(inner)), m_batch(batch) {}
    QString backend() const override { return m_inner->backend(); }
    int purge_expired(int max_rows) override { return m_inner->purge_expired(max_rows); }
    qint64 uplink_count() override { return m_inner->uplink_count(); }
    qint64 downlink_count() override { return m_inner->downlink_count(); }
    interfaces::IUplinkStore& ul() override { return m_inner->ul(); }
    interfaces::IDownlinkStore& dl() override { return m_inner->dl(); }
    interfaces::IWriteBatch* write_batch() override { return &m_batch; }

private:
    std::shared_ptr<interfaces::IMessagesDatabase> m_inner;
    scripted_batch& m_batch;
};

class EngineBatchFailure : public EngineFixture {
protected:
    void SetUp() override {
        EngineFixture::SetUp();
        model::dev_value value;
        value.obis_code = "1.8.0";
        value.tag = "t";
        value.value = 2.5;
        m_driver->m_records = {value};
        m_messages_override = std::make_shared<batching_messages>(messages(), m_batch);
    }

    // Publications per route prefix "null.0.ul_roll": one per handled uplink that counted.
    int roll_publications() {
        int n = 0;
        for (const auto& p : m_publisher->m_published) {
            n += p.route.contains(".ul_roll.") ? 1 : 0;
        }
        return n;
    }

    scripted_batch m_batch;
};

}  // namespace

TEST_F(EngineBatchFailure, AFailedCommitHandlesEachDeliveryAgainAloneAndRejectsOnlyTheFailingOne) {
    m_driver->m_explode_throws_for_modem = 78;
    make_engine();
    m_batch.m_fail_commits = 1;
    m_engine->onUlReceived(uplink(77), 1);
    m_engine->onUlReceived(uplink(78), 2);
    m_engine->onUlReceived(uplink(79), 3);
    EXPECT_TRUE(m_publisher->m_published.empty());  // nothing before the commit

    m_engine->flushDeliveries();
    EXPECT_EQ(m_receiver->m_acked, (std::vector<uint64_t>{1, 3}));
    EXPECT_EQ(m_receiver->m_rejected, (std::vector<uint64_t>{2}));
    // The failed burst published nothing; each delivery handled again published once.
    EXPECT_EQ(roll_publications(), 2);
    EXPECT_EQ(m_batch.m_commits, 1 + 3);
    const QString log = log_text();
    EXPECT_TRUE(log.contains("could not commit a burst of 3 deliveries (disk I/O error)"));
    EXPECT_EQ(log.count("onUlReceived throw catch. Std::exception: explode failed Message_tag: 2"), 1);
}

TEST_F(EngineBatchFailure, ADeliveryThatCannotBeStoredAloneIsRejectedAndNamed) {
    make_engine();
    m_batch.m_fail_commits = 2;  // the burst's commit, then the first delivery's own
    m_engine->onUlReceived(uplink(77), 1);
    m_engine->onUlReceived(uplink(78), 2);
    m_engine->flushDeliveries();
    EXPECT_EQ(m_receiver->m_acked, (std::vector<uint64_t>{2}));
    EXPECT_EQ(m_receiver->m_rejected, (std::vector<uint64_t>{1}));
    EXPECT_EQ(roll_publications(), 1);
    EXPECT_TRUE(
        log_text().contains("onUlReceived throw catch. Std::exception: disk I/O error Message_tag: 1"));
}

TEST_F(EngineBatchFailure, ATransactionLostMidBurstStopsTheBurstAtOnce) {
    make_engine();
    // Three units per uplink (the controller's and the queues' inside its own): the
    // second uplink's first.
    m_batch.m_lose_at_unit = 4;
    m_engine->onUlReceived(uplink(77), 1);
    m_engine->onUlReceived(uplink(78), 2);
    // The loss is known when the second uplink's unit ends: both are handled again alone,
    // without waiting for the burst to end and without writing outside a transaction.
    EXPECT_EQ(m_receiver->m_acked, (std::vector<uint64_t>{1, 2}));
    EXPECT_EQ(roll_publications(), 2);
    EXPECT_TRUE(log_text().contains("could not commit a burst of 2 deliveries"));
    EXPECT_FALSE(log_text().contains("onUlReceived throw catch"));
}
