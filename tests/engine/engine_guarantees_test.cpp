// What the engine promises whatever happens around it: an acknowledged uplink is stored,
// nothing is announced before it is stored, one message's failure costs no other, and
// no handling starts inside another.

#include <time.h>

#include <QCoreApplication>
#include <QTest>
#include <QTimer>
#include <stdexcept>

#include "sqlite_engine_fixture.h"

namespace {

double process_cpu_seconds() {
    timespec t{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &t);
    return double(t.tv_sec) + double(t.tv_nsec) / 1e9;
}

// A command that writes a state entry, then fails half-way when asked to.
class writing_command : public ICommandHandler {
public:
    explicit writing_command(std::shared_ptr<interfaces::IDriverState> state) : m_state(std::move(state)) {}
    QJsonObject execute(const api_message& message) override {
        const QJsonObject body = message.data.object();
        m_state->begin(500);
        m_state->set(500, body.value("key").toString(), QJsonValue(1));
        m_state->end(500, 0);
        if (body.value("fail").toBool()) {
            throw std::runtime_error("half-way");
        }
        return QJsonObject{{"ok", true}};
    }

private:
    std::shared_ptr<interfaces::IDriverState> m_state;
};

QJsonObject command(const QString& key, bool fail) {
    return QJsonObject{{"msg_type", "write_test"},
                       {"cmd_id", QUuid::createUuid().toString()},
                       {"data", QJsonObject{{"key", key}, {"fail", fail}}}};
}

class EngineGuarantees : public EngineBatch {
protected:
    bool settled(std::size_t count) {
        return QTest::qWaitFor(
            [&] { return m_receiver->m_acked.size() + m_receiver->m_rejected.size() >= count; }, 10000);
    }
    QString stored_modems() { return committed("SELECT group_concat(modem_id) FROM ul_messages"); }

    void queue_entry_waiting_for(const QString& db_id) {
        model::dl_queues set;
        set.dl["q"].ttl = 3600;
        set.dl["q"].timeout = 600;
        set.dl["q"].entries["a"].db_id = db_id;
        set.dl["q"].entries["a"].status = model::WAIT;
        set.dl["q"].entries["a"].repeat = 1;
        state()->queues().save(77, set, 1);
    }
};

}  // namespace

// While the client publisher waits for its link, the event loop runs; a delivery that
// arrives then must wait, not nest its writes inside the first one's, where the first
// one's undo took them along although it was acknowledged.
TEST_F(EngineGuarantees, ADeliveryArrivingWhileThePublisherWaitsIsHandledAfterwardsAndKept) {
    make_engine();
    m_publisher->m_waits_for_link = true;
    m_driver->m_records.clear();
    m_driver->m_controller_throws_for_modem = 77;
    bool nested = false;
    bool second_sent = false;
    m_publisher->m_on_publish = [&] {
        if (!second_sent) {
            second_sent = true;
            QTimer::singleShot(100, [&] {
                nested = m_engine->gate().busy();
                m_engine->onUlReceived(uplink(78), 2);
            });
        }
    };
    m_engine->onUlReceived(uplink(77), 1);
    m_engine->flushDeliveries();
    all_durable();
    ASSERT_TRUE(settled(2));

    EXPECT_TRUE(nested);  // it really arrived during the wait
    // The controller's failure undoes the controller's work only: 77 stays stored.
    EXPECT_EQ(m_receiver->m_acked, (std::vector<uint64_t>{1, 2}));
    EXPECT_TRUE(m_receiver->m_rejected.empty());
    EXPECT_EQ(stored_modems(), "77,78");
    EXPECT_TRUE(log_text().contains("step \"controller\" failed after the message was stored"));
}

// An exception whose text is empty is a failure all the same: the step's writes are
// undone and the line says so, while the uplink itself stays stored and acknowledged.
TEST_F(EngineGuarantees, AStepThatThrowsAnEmptyTextHasFailedAndIsUndone) {
    make_engine();
    m_driver->m_on_controller = [this] {
        state()->begin(77);
        state()->set(77, "controller", QJsonValue("written"));
        state()->end(77, 0);
        throw std::runtime_error("");
    };
    m_engine->onUlReceived(uplink(77), 1);
    m_engine->flushDeliveries();
    ASSERT_TRUE(settled(1));

    EXPECT_EQ(m_receiver->m_acked, (std::vector<uint64_t>{1}));
    EXPECT_EQ(stored_modems(), "77");
    EXPECT_TRUE(log_text().contains(
        "step \"controller\" failed after the message was stored, its own writes undone: "));
    EXPECT_TRUE(state()->get(77, "controller").isUndefined() || state()->get(77, "controller").isNull());
}

// A stored and published uplink is never erased by a later step; a queue entry whose
// downlink is gone fails once instead of failing every uplink of the modem.
TEST_F(EngineGuarantees, StepsAfterStoringNeverEraseTheUplink) {
    m_config.settings.dl_queues = true;
    make_engine();
    queue_entry_waiting_for("no-such-downlink");
    m_engine->onUlReceived(uplink(77), 1);
    m_engine->onUlReceived(uplink(77), 2);
    m_engine->flushDeliveries();
    all_durable();

    EXPECT_EQ(m_receiver->m_acked, (std::vector<uint64_t>{1, 2}));
    EXPECT_EQ(stored_modems(), "77,77");
    EXPECT_EQ(state()->queues().load(77).dl["q"].entries["a"].status, model::FAIL);
    EXPECT_EQ(log_text().count("dl message no-such-downlink not found; its entry fails"), 1);
    EXPECT_FALSE(log_text().contains("onUlReceived throw catch"));
}

// The network server gets a downlink only once its record is committed: otherwise a
// failed batch leaves the device with a command the service knows nothing about.
TEST_F(EngineGuarantees, AQueuedDownlinkLeavesOnlyAfterItsRecordIsCommitted) {
    m_config.settings.dl_queues = true;
    make_engine();
    model::dl_queues set;
    set.dl["q"].ttl = 3600;
    set.dl["q"].repeat = 1;
    set.dl["q"].entries["a"].type = "raw";
    set.dl["q"].entries["a"].data = QJsonObject{{"raw_payload", "0a0b"}};
    state()->queues().save(77, set, 1);
    QString committed_at_send;
    m_api->m_on_send = [&](const command_record& sent) {
        committed_at_send = committed("SELECT COUNT(*) FROM dl_messages WHERE db_id = '" +
                                      sent.data.value("status_id").toString() + "'");
    };
    m_engine->onUlReceived(uplink(77), 1);
    m_engine->flushDeliveries();
    all_durable();
    ASSERT_TRUE(QTest::qWaitFor([&] { return !m_api->m_sent.empty(); }, 1000));

    ASSERT_EQ(m_api->m_sent.size(), 1u);
    EXPECT_EQ(m_api->m_sent[0].type, "dl");
    EXPECT_EQ(m_api->m_sent[0].data.value("payload").toString(), "0a0b");
    EXPECT_EQ(committed_at_send, "1");
}

// A command never writes into the open burst of uplinks: the burst is committed and
// settled first, the command's writes are committed before it returns, and a command
// that fails half-way leaves nothing behind.
TEST_F(EngineGuarantees, ACommandIsAUnitOfItsOwnBetweenBursts) {
    m_commands = [this](const QString&) { return std::make_shared<writing_command>(state()); };
    make_engine();
    m_engine->onUlReceived(uplink(77), 1);
    EXPECT_TRUE(m_receiver->m_acked.empty());

    m_engine->api()->listen(command("done", false), 10);
    EXPECT_EQ(m_receiver->m_acked, (std::vector<uint64_t>{1}));
    EXPECT_EQ(stored_modems(), "77");
    EXPECT_EQ(committed("SELECT COUNT(*) FROM state_entries WHERE modem_id = 500 AND key = 'done'"), "1");
    EXPECT_EQ(state()->get(500, "done").toInt(), 1);

    m_engine->api()->listen(command("undone", true), 11);
    m_engine->onUlReceived(uplink(78), 2);
    m_engine->flushDeliveries();
    all_durable();
    EXPECT_TRUE(state()->get(500, "undone").isUndefined());
    EXPECT_EQ(state()->get(500, "done").toInt(), 1);
    EXPECT_TRUE(log_text().contains("error while parse income message :half-way"));
}

// With the publisher down, each publication waits for its link; that wait must cost
// nothing but time, and must not hold the store's write lock from other processes.
TEST_F(EngineGuarantees, WaitingForThePublisherBurnsNoCpuAndHoldsNoWriteLock) {
    make_engine();
    m_publisher->m_waits_for_link = true;
    m_driver->m_records.clear();  // one publication per uplink: one second of waiting each
    bool lock_free_during_wait = false;
    m_publisher->m_on_publish = [&] {
        QTimer::singleShot(300, [&] { lock_free_during_wait = write_lock_free(200); });
    };
    const double cpu_before = process_cpu_seconds();
    QElapsedTimer wall;
    wall.start();
    m_engine->onUlReceived(uplink(77), 1);
    m_engine->onUlReceived(uplink(78), 2);
    m_engine->flushDeliveries();
    all_durable();
    ASSERT_TRUE(settled(2));
    const double cpu = process_cpu_seconds() - cpu_before;

    EXPECT_GE(wall.elapsed(), 1900);  // it did wait, a second per publication
    EXPECT_LT(cpu, 0.5) << "CPU seconds spent while waiting " << wall.elapsed() << " ms";
    EXPECT_TRUE(lock_free_during_wait);
    EXPECT_EQ(m_receiver->m_acked, (std::vector<uint64_t>{1, 2}));
}

// A process killed between a burst's commit and its acknowledgements gets that burst
// delivered again: what is stored already is acknowledged, not stored a second time, and
// not published again; an uplink delivered again that was never stored is stored.
TEST_F(EngineGuarantees, AnUplinkDeliveredAgainAfterItsCommitIsStoredOnce) {
    make_engine();
    m_engine->onUlReceived(uplink(77), 1);
    m_engine->flushDeliveries();
    all_durable();
    ASSERT_EQ(m_receiver->m_acked, (std::vector<uint64_t>{1}));
    const std::size_t published = m_publisher->m_published.size();
    const int controller_calls = m_driver->m_controller_calls;

    m_receiver->m_delivered_before = {2, 3};
    m_engine->onUlReceived(uplink(77), 2);
    QJsonObject other_iterator = uplink(77);
    other_iterator["iterator"] = 8;
    m_engine->onUlReceived(other_iterator, 3);
    m_engine->flushDeliveries();
    all_durable();

    EXPECT_EQ(m_receiver->m_acked, (std::vector<uint64_t>{1, 2, 3}));
    EXPECT_EQ(committed("SELECT COUNT(*) FROM ul_messages WHERE modem_id = 77 AND iterator = 7"), "1");
    EXPECT_EQ(committed("SELECT COUNT(*) FROM ul_messages WHERE modem_id = 77 AND iterator = 8"), "1");
    // Only the new uplink was published and went through the steps after storing.
    EXPECT_EQ(m_publisher->m_published.size(), published * 2);
    EXPECT_EQ(m_driver->m_controller_calls, controller_calls + 1);
    EXPECT_TRUE(log_text().contains("delivered again and stored already: modem 77 iterator 7"));
}
