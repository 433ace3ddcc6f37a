#include <QDateTime>

#include "engine/dl_queue_step.h"
#include "engine_fixture.h"

namespace {
// Counts saves while delegating to the real store's queue part.
class counting_queue_state : public interfaces::IQueueStore {
public:
    explicit counting_queue_state(interfaces::IQueueStore& inner) : m_inner(inner) {}
    model::dl_queues load(int modem) override { return m_inner.load(modem); }
    void save(int modem, const model::dl_queues& set, int flag) override {
        ++m_saves;
        m_inner.save(modem, set, flag);
    }
    interfaces::IQueueStore& m_inner;
    int m_saves = 0;
};

// The real driver state, with its queue part counted.
class counting_state : public interfaces::IDriverState {
public:
    explicit counting_state(interfaces::IDriverState& inner) : m_inner(inner), m_queues(inner.queues()) {}
    void begin(int m) override { m_inner.begin(m); }
    void end(int m, int f) override { m_inner.end(m, f); }
    void remove(int m) override { m_inner.remove(m); }
    QJsonValue get(int m, const QString& k) override { return m_inner.get(m, k); }
    void set(int m, const QString& k, const interfaces::state_value& v) override { m_inner.set(m, k, v); }
    QJsonObject state(int m) override { return m_inner.state(m); }
    int mark(int m) override { return m_inner.mark(m); }
    QList<int> modems_with_state() override { return m_inner.modems_with_state(); }
    void save(int m, const QJsonObject& s) override { m_inner.save(m, s); }
    QList<int> ids(const QString& h, const QString& p) override { return m_inner.ids(h, p); }
    int list_modems(QList<int>& out, int o, int l) override { return m_inner.list_modems(out, o, l); }
    void prepare(int m) override { m_inner.prepare(m); }
    void clear_queues() override { m_inner.clear_queues(); }
    std::shared_ptr<void> lock(int m) override { return m_inner.lock(m); }
    interfaces::IQueueStore& queues() override { return m_queues; }

    interfaces::IDriverState& m_inner;
    counting_queue_state m_queues;
};

model::dl_queue_entry entry(const QString& type = "raw") {
    model::dl_queue_entry e;
    e.type = type;
    e.data["raw_payload"] = "0a0b";
    return e;
}
}  // namespace

class DlQueueStep : public EngineFixture {
protected:
    void SetUp() override {
        EngineFixture::SetUp();
        m_now = QDateTime::currentSecsSinceEpoch();
    }

    // Runs one step; each send stores a PENDING downlink as the engine would.
    void step() {
        counting_state counted(*state());
        dl_queue_step runner(counted, messages()->dl(),
                             [this](const model::dl_queue_entry& e, model::dl_message message) {
                                 if (e.data.value("cmd").toString() == "open") {
                                     throw downlink_refused("mbus downlink: unknown \"cmd\" \"open\"");
                                 }
                                 m_sent_types.push_back(e.type);
                                 m_sent.push_back(message);
                                 messages()->dl().save(message);
                                 return QJsonObject{{"ok", true}, {"bd_id", message.db_id}};
                             });
        runner.set_clock([this] { return m_now; });
        runner.run(77);
        m_saves += counted.m_queues.m_saves;
    }

    model::dl_queues set() { return state()->queues().load(77); }
    void save(const model::dl_queues& s) { state()->queues().save(77, s, 1); }
    void finish(const QString& queue, const QString& key, int status) {
        messages()->dl().set_status(set().dl[queue].entries[key].db_id, status);
    }

    qint64 m_now = 0;
    std::vector<model::dl_message> m_sent;
    std::vector<QString> m_sent_types;
    int m_saves = 0;
};

TEST_F(DlQueueStep, EntriesGoOutOneAtATimeInNameOrder) {
    model::dl_queues s;
    s.dl["q"].ttl = 3600;
    s.dl["q"].timeout = 600;
    s.dl["q"].entries["b"] = entry();
    s.dl["q"].entries["a"] = entry();
    save(s);

    step();
    ASSERT_EQ(m_sent.size(), 1u);
    EXPECT_EQ(m_sent[0].user_id, "qln_queue");
    EXPECT_EQ(m_sent[0].timeout, 600);
    EXPECT_EQ(m_sent[0].modem_id, 77);
    auto after = set();
    EXPECT_EQ(after.status, model::WAIT);
    EXPECT_EQ(after.dl["q"].status, model::WAIT);
    EXPECT_EQ(after.dl["q"].entries["a"].status, model::WAIT);
    EXPECT_EQ(after.dl["q"].entries["a"].repeat, 1);
    EXPECT_FALSE(after.dl["q"].entries["a"].db_id.isEmpty());
    EXPECT_TRUE(after.dl["q"].entries["b"].db_id.isEmpty());
    EXPECT_EQ(after.dl["q"].start_ts, m_now);

    step();  // "a" still pending: nothing new goes out
    EXPECT_EQ(m_sent.size(), 1u);

    finish("q", "a", model::EXECUTED);
    step();
    ASSERT_EQ(m_sent.size(), 2u);
    EXPECT_EQ(set().dl["q"].entries["a"].status, model::DONE);

    finish("q", "b", model::EXECUTED);
    step();
    EXPECT_EQ(m_sent.size(), 2u);
    EXPECT_EQ(set().dl["q"].status, model::DONE);
    EXPECT_EQ(set().status, model::DONE);
}

TEST_F(DlQueueStep, PendingEntryBlocksLaterQueues) {
    model::dl_queues s;
    s.dl["q1"].ttl = 3600;
    s.dl["q1"].timeout = 600;
    s.dl["q1"].entries["a"] = entry();
    s.dl["q2"].ttl = 3600;
    s.dl["q2"].entries["a"] = entry();
    save(s);
    step();
    step();
    EXPECT_EQ(m_sent.size(), 1u);
    EXPECT_TRUE(set().dl["q2"].entries["a"].db_id.isEmpty());
}

TEST_F(DlQueueStep, RepeatZeroNeverResendsAndTheQueueFails) {
    model::dl_queues s;
    s.dl["q"].ttl = 3600;
    s.dl["q"].timeout = 600;
    s.dl["q"].repeat = 0;
    s.dl["q"].entries["a"] = entry();
    save(s);
    step();
    finish("q", "a", model::TIMEOUT);
    step();
    EXPECT_EQ(m_sent.size(), 1u);
    EXPECT_EQ(set().dl["q"].entries["a"].status, model::FAIL);
    EXPECT_EQ(set().dl["q"].status, model::FAIL);
    EXPECT_EQ(set().status, model::FAIL);
}

TEST_F(DlQueueStep, FailedEntryIsResentWhileRepeatsRemain) {
    model::dl_queues s;
    s.dl["q"].ttl = 3600;
    s.dl["q"].timeout = 600;
    s.dl["q"].repeat = 2;
    s.dl["q"].entries["a"] = entry();
    save(s);
    step();
    finish("q", "a", model::TIMEOUT);
    step();
    ASSERT_EQ(m_sent.size(), 2u);
    EXPECT_EQ(set().dl["q"].entries["a"].repeat, 2);
    finish("q", "a", model::TIMEOUT);
    step();
    EXPECT_EQ(m_sent.size(), 2u);
    EXPECT_EQ(set().dl["q"].status, model::FAIL);
}

TEST_F(DlQueueStep, AnEntryTheDriverCannotEncodeFailsOnceAndTheNextGoesOut) {
    model::dl_queues s;
    s.dl["q"].ttl = 3600;
    s.dl["q"].timeout = 600;
    s.dl["q"].repeat = 3;
    s.dl["q"].entries["a"] = entry("typical");
    s.dl["q"].entries["a"].data = QJsonObject{{"cmd", "open"}};
    s.dl["q"].entries["b"] = entry();
    save(s);
    step();
    EXPECT_TRUE(m_sent.empty());
    EXPECT_EQ(set().dl["q"].entries["a"].status, model::FAIL);
    EXPECT_TRUE(set().dl["q"].entries["a"].db_id.isEmpty());
    // Its data cannot change by itself: it is not tried again, and "b" goes out.
    step();
    ASSERT_EQ(m_sent.size(), 1u);
    EXPECT_EQ(m_sent_types.front(), "raw");
    finish("q", "b", model::EXECUTED);
    step();
    step();
    EXPECT_EQ(m_sent.size(), 1u);
    EXPECT_EQ(set().dl["q"].entries["b"].status, model::DONE);
    EXPECT_EQ(set().dl["q"].status, model::FAIL);
}

TEST_F(DlQueueStep, ExpiredDownlinkTimeoutMarksTheMessageTimedOut) {
    model::dl_queues s;
    s.dl["q"].ttl = 100000;
    s.dl["q"].timeout = 60;
    s.dl["q"].entries["a"] = entry();
    save(s);
    step();
    const QString id = set().dl["q"].entries["a"].db_id;
    m_now += 120;  // past timestamp + timeout
    step();
    EXPECT_EQ(messages()->dl().get(id).dl_status, model::TIMEOUT);
    EXPECT_EQ(set().dl["q"].entries["a"].status, model::FAIL);
}

TEST_F(DlQueueStep, FutureStartLeavesTheQueueUntouched) {
    model::dl_queues s;
    s.dl["later"].start_from = static_cast<int>(m_now + 3600);
    s.dl["later"].ttl = 3600;
    s.dl["later"].entries["a"] = entry();
    save(s);
    step();
    EXPECT_TRUE(m_sent.empty());
    EXPECT_EQ(set().dl["later"].start_ts, 0);
    EXPECT_EQ(set().dl["later"].status, model::NONE);
}

TEST_F(DlQueueStep, StartTimeBelowHundredCountsAsNeverStarted) {
    model::dl_queues s;
    s.dl["q"].start_ts = 50;
    s.dl["q"].ttl = 3600;
    s.dl["q"].entries["a"] = entry();
    save(s);
    step();
    EXPECT_EQ(set().dl["q"].start_ts, m_now);
    EXPECT_EQ(m_sent.size(), 1u);
}

TEST_F(DlQueueStep, ExpiredQueueBecomesOutdatedWithoutSending) {
    model::dl_queues s;
    s.dl["q"].start_ts = static_cast<int>(m_now - 7200);
    s.dl["q"].ttl = 3600;
    s.dl["q"].entries["a"] = entry();
    save(s);
    step();
    EXPECT_TRUE(m_sent.empty());
    EXPECT_EQ(set().dl["q"].status, model::OUTDATE);
    EXPECT_EQ(set().status, model::DONE);  // an outdated queue is not a failed one
}

TEST_F(DlQueueStep, LockedSetAndLockedQueueAreLeftAlone) {
    model::dl_queues s;
    s.lock = true;
    s.dl["q"].ttl = 3600;
    s.dl["q"].entries["a"] = entry();
    save(s);
    step();
    EXPECT_TRUE(m_sent.empty());
    EXPECT_EQ(m_saves, 0);

    s.lock = false;
    s.dl["q"].lock = true;
    save(s);
    step();
    EXPECT_TRUE(m_sent.empty());
    EXPECT_EQ(set().dl["q"].status, model::NONE);
}

TEST_F(DlQueueStep, EmptySetBecomesDoneAndAnUnchangedSetIsNotWrittenBack) {
    model::dl_queues s;
    s.status = model::DONE;
    s.dl["q"].status = model::DONE;
    s.dl["q"].start_ts = static_cast<int>(m_now);
    s.dl["q"].ttl = 3600;
    auto e = entry();
    e.status = model::DONE;
    e.db_id = "sent";
    e.repeat = 1;
    s.dl["q"].entries["a"] = e;
    save(s);

    step();
    EXPECT_EQ(m_saves, 0);
    EXPECT_EQ(set(), s);
    EXPECT_TRUE(m_sent.empty());

    state()->queues().save(77, model::dl_queues(), 1);
    step();
    EXPECT_EQ(set().status, model::DONE);
    EXPECT_EQ(m_saves, 1);
}
