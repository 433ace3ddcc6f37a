// A store whose commits reach the disk only later: nothing that speaks of a commit (an
// acknowledgement, a publication, a command's reply) leaves before the store says the
// commit is durable, and what waits goes out in the order of the commits.

#include <QUuid>
#include <algorithm>

#include "engine_fixture.h"
#include "interfaces/IDurableCommits.h"

namespace {

// Commits are numbered; the test decides how far they are durable.
class deferred_store : public interfaces::IWriteBatch, public interfaces::IDurableCommits {
public:
    void begin_batch() override { m_open = true; }
    void begin_item() override {}
    bool end_item(bool) override { return true; }
    void commit_batch() override {
        m_open = false;
        ++m_ticket;
    }
    bool batch_open() const override { return m_open; }
    interfaces::IDurableCommits* durable_commits() override { return this; }

    quint64 commit_ticket() const override { return m_ticket; }
    quint64 durable_ticket() const override { return m_durable; }
    void on_durable(std::function<void()> advanced, std::function<void(const QString&)> failed) override {
        m_advanced = std::move(advanced);
        m_failed = std::move(failed);
    }
    // Like a syncer that syncs when asked.
    bool wait_durable(quint64 ticket) override {
        m_waited_for.push_back(ticket);
        make_durable(std::max(m_durable, ticket), false);
        return true;
    }

    void make_durable(quint64 ticket, bool notify = true) {
        m_durable = ticket;
        if (notify && m_advanced) {
            m_advanced();
        }
    }

    bool m_open = false;
    quint64 m_ticket = 0;
    quint64 m_durable = 0;
    std::vector<quint64> m_waited_for;
    std::function<void()> m_advanced;
    std::function<void(const QString&)> m_failed;
};

class deferred_messages : public interfaces::IMessagesDatabase {
public:
    deferred_messages(std::shared_ptr<interfaces::IMessagesDatabase> inner, deferred_store& store)
        : m_inner(std::move(inner)), m_store(store) {}
    QString backend() const override { return m_inner->backend(); }
    int purge_expired(int max_rows) override { return m_inner->purge_expired(max_rows); }
    qint64 uplink_count() override { return m_inner->uplink_count(); }
    qint64 downlink_count() override { return m_inner->downlink_count(); }
    interfaces::IUplinkStore& ul() override { return m_inner->ul(); }
    interfaces::IDownlinkStore& dl() override { return m_inner->dl(); }
    interfaces::IWriteBatch* write_batch() override { return &m_store; }

private:
    std::shared_ptr<interfaces::IMessagesDatabase> m_inner;
    deferred_store& m_store;
};

class writing_command : public ICommandHandler {
public:
    explicit writing_command(std::shared_ptr<interfaces::IDriverState> state) : m_state(std::move(state)) {}
    QJsonObject execute(const api_message&) override {
        m_state->begin(500);
        m_state->set(500, "k", QJsonValue(1));
        m_state->end(500, 0);
        return QJsonObject{{"ok", true}};
    }

private:
    std::shared_ptr<interfaces::IDriverState> m_state;
};

class EngineDurability : public EngineFixture {
protected:
    void SetUp() override {
        EngineFixture::SetUp();
        m_prefetch = 6;  // a burst is committed after three deliveries
        m_messages_override = std::make_shared<deferred_messages>(messages(), m_store);
        clients()->set_device(77, {"proto7", "X", {"c1"}});
        m_driver->m_records.clear();  // one publication per uplink: its roll
    }

    // The engine refers to the store, which goes with this class, before the base's members.
    void TearDown() override { m_engine.reset(); }

    void receive_burst(uint64_t first) {
        for (uint64_t tag = first; tag < first + 3; ++tag) {
            m_engine->onUlReceived(uplink(77), tag);
        }
    }

    deferred_store m_store;
};

using tags = std::vector<uint64_t>;

}  // namespace

TEST_F(EngineDurability, NothingOfABurstLeavesBeforeItsCommitIsDurable) {
    make_engine();
    receive_burst(1);
    ASSERT_EQ(m_store.m_ticket, 1u);  // committed: the writes are in, not yet on the disk
    EXPECT_TRUE(m_receiver->m_acked.empty());
    EXPECT_TRUE(m_publisher->m_published.empty());

    m_store.make_durable(1);
    EXPECT_EQ(m_receiver->m_acked, (tags{1, 2, 3}));
    EXPECT_EQ(m_publisher->m_published.size(), 3u);
}

// Once durable, a burst's publications and settlements are pushed to the broker at
// once, each output flushed after the whole burst, instead of waiting for the event
// loop's next turn; nothing is flushed while nothing was let out.
TEST_F(EngineDurability, WhatADurableCommitLetsOutIsPushedOutAtOnce) {
    make_engine();
    receive_burst(1);
    EXPECT_TRUE(m_publisher->m_flushed_at.empty());
    EXPECT_EQ(m_receiver->m_flushes, 0);

    m_store.make_durable(1);
    EXPECT_EQ(m_publisher->m_flushed_at, (std::vector<std::size_t>{3}));
    EXPECT_EQ(m_receiver->m_flushes, 1);
    EXPECT_EQ(m_receiver->m_acked, (tags{1, 2, 3}));
}

// Handling goes on while the disk syncs; what later commits let out waits behind the
// earlier ones, and each burst goes out whole when its own commit is durable.
TEST_F(EngineDurability, LaterBurstsWaitBehindEarlierOnesAndLeaveInOrder) {
    make_engine();
    receive_burst(1);
    receive_burst(4);
    receive_burst(7);
    ASSERT_EQ(m_store.m_ticket, 3u);
    EXPECT_TRUE(m_receiver->m_acked.empty());

    m_store.make_durable(2);
    EXPECT_EQ(m_receiver->m_acked, (tags{1, 2, 3, 4, 5, 6}));
    EXPECT_EQ(m_publisher->m_published.size(), 6u);

    // Nothing newer became durable: a notification alone lets nothing out.
    m_store.make_durable(2);
    EXPECT_EQ(m_receiver->m_acked.size(), 6u);

    m_store.make_durable(3);
    EXPECT_EQ(m_receiver->m_acked, (tags{1, 2, 3, 4, 5, 6, 7, 8, 9}));
}

// A rejection is not a write, but it still leaves after the acknowledgements of the
// deliveries handled before it.
TEST_F(EngineDurability, ARejectionKeepsItsPlaceBehindWaitingAcknowledgements) {
    make_engine();
    receive_burst(1);
    m_engine->onUlReceived(uplink(79, "other"), 4);  // not this driver's
    m_engine->flushDeliveries();
    EXPECT_TRUE(m_receiver->m_acked.empty());
    EXPECT_TRUE(m_receiver->m_rejected.empty());

    m_store.make_durable(m_store.m_ticket);
    EXPECT_EQ(m_receiver->m_acked, (tags{1, 2, 3}));
    EXPECT_EQ(m_receiver->m_rejected, (tags{4}));
}

// A command's reply may reveal what earlier uplinks stored: the command waits for every
// commit before its reply, its own included, and the uplinks' acknowledgements go first.
TEST_F(EngineDurability, ACommandWaitsForEveryEarlierCommitBeforeItsReply) {
    m_commands = [this](const QString&) { return std::make_shared<writing_command>(state()); };
    make_engine();
    m_engine->onUlReceived(uplink(77), 1);
    EXPECT_TRUE(m_receiver->m_acked.empty());

    const QJsonObject command{{"msg_type", "write_test"},
                              {"cmd_id", QUuid::createUuid().toString()},
                              {"data", QJsonObject{{"key", "k"}}}};
    m_engine->api()->listen(command, 10);
    // The uplink's burst, then the command's own unit: two commits, both waited for.
    EXPECT_EQ(m_store.m_ticket, 2u) << log_text().toStdString();
    ASSERT_FALSE(m_store.m_waited_for.empty());
    EXPECT_EQ(m_store.m_waited_for.back(), 2u);
    EXPECT_EQ(m_receiver->m_acked, (tags{1}));
}

// When the disk refuses a sync nothing is known about what reached it: the service says
// so and stops, before anything more is acknowledged; the broker delivers the rest again.
TEST_F(EngineDurability, AFailedSyncStopsTheServiceWithoutAcknowledging) {
    ::testing::FLAGS_gtest_death_test_style = "threadsafe";
    EXPECT_EXIT(
        {
            make_engine();
            receive_burst(1);
            m_receiver->m_on_ack = [](uint64_t) { std::_Exit(3); };
            m_store.m_failed("cannot sync the write-ahead log: Input/output error");
        },
        ::testing::ExitedWithCode(EXIT_FAILURE), "");
}
