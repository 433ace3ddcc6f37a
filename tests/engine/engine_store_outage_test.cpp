// A store whose server goes away: nothing is rejected, every delivery that is not stored
// goes back to its queue, uplinks pause until the server is back, and the outage is
// logged once each way.

#include <QElapsedTimer>
#include <QTest>
#include <stdexcept>

#include "engine_fixture.h"
#include "interfaces/IStoreLink.h"

namespace {

// The server's side of the fake: up or away, and what the link says about it.
struct fake_server {
    bool down = false;
    QString error = "could not connect to server: Connection refused";
    int polls = 0;
    // Polls a new connection takes once the server is back; one that is not polled again
    // within connect_timeout_ms is given up (as libpq's attempts time out).
    int connect_steps = 0;
    int connect_timeout_ms = 1000;

    void check() const {
        if (down) {
            throw interfaces::store_unavailable(error.toStdString());
        }
    }
};

class fake_link : public interfaces::IStoreLink {
public:
    explicit fake_link(fake_server& server) : m_server(server) {}
    link_state poll_link() override {
        ++m_server.polls;
        if (m_server.down) {
            return link_state::down;
        }
        if (m_steps_left < 0 || m_since_step.elapsed() > m_server.connect_timeout_ms) {
            m_steps_left = m_server.connect_steps;  // a new attempt
        }
        m_since_step.start();
        if (m_steps_left > 0) {
            --m_steps_left;
            return link_state::connecting;
        }
        m_steps_left = -1;
        return link_state::up;
    }
    QString link_error() const override { return m_server.error; }

private:
    fake_server& m_server;
    int m_steps_left = -1;
    QElapsedTimer m_since_step;
};

// A batch whose every call fails while the server is away, as a network database's does,
// and whose writes count only once committed: a unit undone or a failed commit keeps none.
class fake_batch : public interfaces::IWriteBatch {
public:
    explicit fake_batch(fake_server& server) : m_server(server) {}
    int m_commits = 0;
    bool m_open = false;

    // Runs the write at once outside a batch, else at the commit.
    void write(std::function<void()> apply) {
        if (m_open) {
            m_pending.push_back(std::move(apply));
        } else {
            apply();
        }
    }

    void begin_batch() override {
        m_server.check();
        m_open = true;
    }
    void begin_item() override {
        m_server.check();
        m_marks.push_back(m_pending.size());
    }
    bool end_item(bool keep) override {
        m_server.check();
        if (!keep) {
            m_pending.resize(m_marks.back());
        }
        m_marks.pop_back();
        return true;
    }
    void commit_batch() override {
        m_open = false;
        std::vector<std::function<void()>> pending;
        pending.swap(m_pending);
        m_marks.clear();
        m_server.check();
        for (const auto& apply : pending) {
            apply();
        }
        ++m_commits;
    }
    bool batch_open() const override { return m_open; }

private:
    fake_server& m_server;
    std::vector<std::function<void()>> m_pending;
    std::vector<std::size_t> m_marks;
};

class failing_uplinks : public interfaces::IUplinkStore {
public:
    failing_uplinks(interfaces::IUplinkStore& inner, fake_server& server, fake_batch& batch)
        : m_inner(inner), m_server(server), m_batch(batch) {}
    void save(const model::ul_message& message) override {
        m_server.check();
        m_batch.write([this, message] { m_inner.save(message); });
    }
    void get_roll(model::per_modem<model::ul_message>& out, const model::roll_query& query) override {
        m_server.check();
        m_inner.get_roll(out, query);
    }
    QList<int> modems() override { return m_inner.modems(); }
    void device(std::pair<QString, QString>& out, int modem_id) override {
        m_server.check();
        m_inner.device(out, modem_id);
    }

private:
    interfaces::IUplinkStore& m_inner;
    fake_server& m_server;
    fake_batch& m_batch;
};

// The in-memory store behind a server that can be away.
class remote_messages : public interfaces::IMessagesDatabase {
public:
    remote_messages(std::shared_ptr<interfaces::IMessagesDatabase> inner, fake_server& server)
        : m_inner(std::move(inner)),
          m_server(server),
          m_batch(server),
          m_ul(m_inner->ul(), server, m_batch),
          m_link(server) {}
    QString backend() const override { return "remote"; }
    int purge_expired(int max_rows) override { return m_inner->purge_expired(max_rows); }
    qint64 uplink_count() override {
        m_server.check();
        return m_inner->uplink_count();
    }
    qint64 downlink_count() override { return m_inner->downlink_count(); }
    interfaces::IUplinkStore& ul() override { return m_ul; }
    interfaces::IDownlinkStore& dl() override { return m_inner->dl(); }
    interfaces::IWriteBatch* write_batch() override { return &m_batch; }
    interfaces::IStoreLink* store_link() override { return &m_link; }

    fake_batch& batch() { return m_batch; }

private:
    std::shared_ptr<interfaces::IMessagesDatabase> m_inner;
    fake_server& m_server;
    fake_batch m_batch;
    failing_uplinks m_ul;
    fake_link m_link;
};

// Counts the stored uplinks through the server (so only while it is up).
class counting_command : public ICommandHandler {
public:
    explicit counting_command(std::shared_ptr<interfaces::IMessagesDatabase> messages)
        : m_messages(std::move(messages)) {}
    QJsonObject execute(const api_message&) override {
        return QJsonObject{{"status", "ok"}, {"uplinks", m_messages->uplink_count()}};
    }

private:
    std::shared_ptr<interfaces::IMessagesDatabase> m_messages;
};

class EngineStoreOutage : public EngineFixture {
protected:
    void SetUp() override {
        EngineFixture::SetUp();
        m_remote = std::make_shared<remote_messages>(messages(), m_server);
        m_messages_override = m_remote;
    }

    int stored(int modem) {
        const auto roll = stored_roll(modem);
        const auto it = roll.find(modem);
        return it == roll.end() ? 0 : int(it->second.size());
    }
    bool resumed() {
        return QTest::qWaitFor([&] { return !m_receiver->paused(); }, 10000);
    }

    fake_server m_server;
    std::shared_ptr<remote_messages> m_remote;
};

}  // namespace

// The server goes away in the middle of a burst: the deliveries handled before it are
// not committed, so they go back to the queue with the one being handled; none is
// rejected or acknowledged, and nothing was published for them.
TEST_F(EngineStoreOutage, AnOutageMidBurstRequeuesTheWholeBurstAndPausesTheUplinks) {
    make_engine();
    m_engine->onUlReceived(uplink(77), 1);
    m_engine->onUlReceived(uplink(78), 2);
    m_server.down = true;
    m_engine->onUlReceived(uplink(79), 3);

    EXPECT_EQ(m_receiver->m_requeued, (std::vector<uint64_t>{1, 2, 3}));
    EXPECT_TRUE(m_receiver->m_acked.empty());
    EXPECT_TRUE(m_receiver->m_rejected.empty());
    EXPECT_TRUE(m_publisher->m_published.empty());
    EXPECT_TRUE(m_receiver->paused());
    EXPECT_TRUE(m_engine->store_away());

    // Deliveries already on their way go back at once, without a word each.
    m_engine->onUlReceived(uplink(80), 4);
    m_engine->onUlReceived(uplink(81), 5);
    EXPECT_EQ(m_receiver->m_requeued, (std::vector<uint64_t>{1, 2, 3, 4, 5}));
    const QString log = log_text();
    EXPECT_EQ(log.count("store unavailable: could not connect to server: Connection refused"), 1);
    EXPECT_FALSE(log.contains("onUlReceived throw catch"));
    EXPECT_FALSE(log.contains("could not commit a burst"));
    // Counted as handed back, never as settled.
    using type = service_metrics::uplink_type;
    using verdict = service_metrics::uplink_outcome;
    EXPECT_EQ(m_engine->metrics()->uplink(type::ul_app, verdict::requeued).value(), 5);
    EXPECT_EQ(m_engine->metrics()->uplink(type::ul_app, verdict::acked).value(), 0);
    EXPECT_EQ(m_engine->metrics()->uplink(type::ul_app, verdict::rejected_error).value(), 0);
}

// The burst is handled with the server up, and it goes away before the commit.
TEST_F(EngineStoreOutage, AnOutageAtTheCommitRequeuesTheBurst) {
    make_engine();
    m_engine->onUlReceived(uplink(77), 1);
    m_engine->onUlReceived(uplink(78), 2);
    m_server.down = true;
    m_engine->flushDeliveries();

    EXPECT_EQ(m_receiver->m_requeued, (std::vector<uint64_t>{1, 2}));
    EXPECT_TRUE(m_receiver->m_acked.empty());
    EXPECT_TRUE(m_receiver->m_rejected.empty());
    EXPECT_TRUE(m_publisher->m_published.empty());
    EXPECT_TRUE(m_receiver->paused());
}

// A server that cannot even begin a transaction: the first delivery goes back.
TEST_F(EngineStoreOutage, AServerAwayBeforeTheFirstDeliveryRequeuesIt) {
    make_engine();
    m_server.down = true;
    m_engine->onUlReceived(uplink(77), 1);
    EXPECT_EQ(m_receiver->m_requeued, (std::vector<uint64_t>{1}));
    EXPECT_TRUE(m_receiver->m_rejected.empty());
    EXPECT_TRUE(m_receiver->paused());
}

// The link is polled on a back-off timer; once it is up the consumer resumes by itself,
// the return is logged once, and the deliveries that come again are stored once each.
TEST_F(EngineStoreOutage, TheConsumerResumesByItselfWhenTheServerIsBackAndNothingIsLost) {
    make_engine();
    m_engine->onUlReceived(uplink(77), 1);
    m_server.down = true;
    m_engine->onUlReceived(uplink(78), 2);
    ASSERT_TRUE(m_receiver->paused());
    // A few polls with the server still away: the back-off keeps the consumer paused.
    ASSERT_TRUE(QTest::qWaitFor([&] { return m_server.polls >= 2; }, 5000));
    EXPECT_TRUE(m_receiver->paused());

    m_server.down = false;
    ASSERT_TRUE(resumed());
    EXPECT_FALSE(m_engine->store_away());
    EXPECT_EQ(m_receiver->m_pauses, 1);
    EXPECT_EQ(m_receiver->m_resumes, 1);

    // The broker delivers the requeued uplinks again.
    m_engine->onUlReceived(uplink(77), 11);
    m_engine->onUlReceived(uplink(78), 12);
    m_engine->flushDeliveries();
    EXPECT_EQ(m_receiver->m_acked, (std::vector<uint64_t>{11, 12}));
    EXPECT_TRUE(m_receiver->m_rejected.empty());
    EXPECT_EQ(stored(77), 1);
    EXPECT_EQ(stored(78), 1);

    const QString log = log_text();
    EXPECT_EQ(log.count("store unavailable: "), 1);
    EXPECT_EQ(log.count("store available again after "), 1);
}

// A connection that takes several polls to be made is advanced step by step, not once
// per back-off: an attempt left alone for longer than its time-out would be given up, and
// the back-off (up to 5 s) is longer than that.
TEST_F(EngineStoreOutage, AConnectionBeingMadeIsPolledUntilItIsUp) {
    m_server.connect_steps = 5;
    make_engine();
    m_server.down = true;
    m_engine->onUlReceived(uplink(77), 1);
    // Long enough for the back-off to pass the connection's time-out.
    ASSERT_TRUE(QTest::qWaitFor([&] { return m_server.polls >= 3; }, 10000));
    m_server.down = false;
    ASSERT_TRUE(resumed());
    EXPECT_EQ(log_text().count("store available again after "), 1);
}

// A step after the message's own writes (the controller hook) meets the outage: the
// delivery is not half-kept with the step undone, it goes back whole.
TEST_F(EngineStoreOutage, AnOutageInAStepAfterStoringRequeuesTheDeliveryWhole) {
    make_engine();
    m_driver->m_on_controller = [this] {
        m_server.down = true;
        m_server.check();
    };
    m_engine->onUlReceived(uplink(77), 1);
    EXPECT_EQ(m_receiver->m_requeued, (std::vector<uint64_t>{1}));
    EXPECT_TRUE(m_receiver->m_acked.empty());
    EXPECT_FALSE(log_text().contains("failed after the message was stored"));
    m_driver->m_on_controller = nullptr;
    m_server.down = false;
    ASSERT_TRUE(resumed());
    EXPECT_EQ(stored(77), 0);
}

// Neither the controller timer's work nor a command's ever reports success while the
// store is away.
TEST_F(EngineStoreOutage, TheControllerTickSkipsAndACommandGetsNoFalseOk) {
    m_commands = [this](const QString&) { return std::make_shared<counting_command>(m_remote); };
    m_config.controller_period = 20;
    make_engine();
    m_server.down = true;
    m_engine->onUlReceived(uplink(77), 1);
    const int calls = m_driver->m_controller_calls;
    QTest::qWait(100);
    EXPECT_EQ(m_driver->m_controller_calls, calls);

    m_engine->api()->listen(QJsonObject{{"msg_type", "count"}, {"cmd_id", QUuid::createUuid().toString()}},
                            10);
    EXPECT_TRUE(log_text().contains("command count"));
    EXPECT_TRUE(log_text().contains("not run: store unavailable"));
    EXPECT_FALSE(log_text().contains("error while parse income message"));
}
