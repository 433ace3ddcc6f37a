// What the engine counts: each delivery once, under its type and the way it was settled;
// store commits and their failures; downlinks by who asked for them.

#include <QtTest/QTest>
#include <stdexcept>

#include "engine_fixture.h"

namespace {

using type = service_metrics::uplink_type;
using outcome = service_metrics::uplink_outcome;

// A batch whose next commits can be made to fail.
class failing_batch : public interfaces::IWriteBatch {
public:
    int m_fail_commits = 0;
    bool m_open = false;
    void begin_batch() override { m_open = true; }
    void begin_item() override {}
    bool end_item(bool) override { return true; }
    void commit_batch() override {
        m_open = false;
        if (m_fail_commits > 0) {
            --m_fail_commits;
            throw std::runtime_error("disk I/O error");
        }
    }
    bool batch_open() const override { return m_open; }
};

class batched_messages : public interfaces::IMessagesDatabase {
public:
    batched_messages(std::shared_ptr<interfaces::IMessagesDatabase> inner, failing_batch& batch)
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
    failing_batch& m_batch;
};

// Uplinks that cannot be looked up: the store's server went away.
class unreachable_uplinks : public interfaces::IUplinkStore {
public:
    void save(const model::ul_message&) override { throw std::runtime_error("database is locked"); }
    void get_roll(model::per_modem<model::ul_message>&, const model::roll_query&) override {}
    QList<int> modems() override { return {}; }
    void device(std::pair<QString, QString>&, int) override {
        throw std::runtime_error("database is locked");
    }
};

class unreachable_messages : public interfaces::IMessagesDatabase {
public:
    explicit unreachable_messages(std::shared_ptr<interfaces::IMessagesDatabase> inner)
        : m_inner(std::move(inner)) {}
    QString backend() const override { return m_inner->backend(); }
    int purge_expired(int max_rows) override { return m_inner->purge_expired(max_rows); }
    qint64 uplink_count() override { return m_inner->uplink_count(); }
    qint64 downlink_count() override { return m_inner->downlink_count(); }
    interfaces::IUplinkStore& ul() override { return m_ul; }
    interfaces::IDownlinkStore& dl() override { return m_inner->dl(); }

private:
    std::shared_ptr<interfaces::IMessagesDatabase> m_inner;
    unreachable_uplinks m_ul;
};

class EngineMetrics : public EngineFixture {
protected:
    double uplinks(type t, outcome o) const { return m_engine->metrics()->uplink(t, o).value(); }
    service_metrics& metrics() const { return *m_engine->metrics(); }

    static QJsonObject heartbeat(int modem) {
        return QJsonObject{{"msg_type", "ul_hb"}, {"modem_id", modem},           {"protocol", "proto7"},
                           {"hw_type", "X"},      {"time_detected", 1700000000}, {"temperature", 20.0},
                           {"voltage", 3.5}};
    }
};

TEST_F(EngineMetrics, EachDeliveryIsCountedOnceByTypeAndOutcome) {
    m_driver->m_throw_for_modem = 79;
    make_engine();
    m_engine->onUlReceived(uplink(77), 1);
    m_engine->onUlReceived(uplink(78, "proto8"), 2);  // another protocol
    m_engine->onUlReceived(heartbeat(77), 3);
    m_engine->onUlReceived(QJsonObject{{"msg_type", "ul_what"}}, 4);
    m_engine->onUlReceived(QJsonObject{}, 5);  // what a payload that is not JSON gives
    m_engine->onUlReceived(uplink(79), 6);     // the driver throws
    m_engine->onUlReceived(QJsonObject{{"msg_type", "dl_success"}, {"modem_id", 77}}, 7);

    EXPECT_EQ(uplinks(type::ul_app, outcome::acked), 1);
    EXPECT_EQ(uplinks(type::ul_app, outcome::rejected_not_mine), 1);
    EXPECT_EQ(uplinks(type::ul_hb, outcome::rejected_heartbeat), 1);
    EXPECT_EQ(uplinks(type::unknown, outcome::rejected_bad), 2);
    EXPECT_EQ(uplinks(type::ul_app, outcome::rejected_error), 1);
    // No such downlink: the report fails and is rejected.
    EXPECT_EQ(uplinks(type::dl_report, outcome::acked) + uplinks(type::dl_report, outcome::rejected_error),
              1);
    EXPECT_EQ(m_receiver->m_acked.size() + m_receiver->m_rejected.size(), 7u);
    EXPECT_EQ(metrics().uplink_seconds().read().count, 7u);
    // Saved: the accepted uplink and the heartbeat; the throwing one failed before saving.
    EXPECT_EQ(metrics().store_seconds(service_metrics::store_operation::save_message).read().count, 2u);
    EXPECT_EQ(metrics().store_errors().value(), 0);
}

TEST_F(EngineMetrics, ABurstIsOneCommitOfItsSize) {
    failing_batch batch;
    m_messages_override = std::make_shared<batched_messages>(messages(), batch);
    make_engine();
    m_engine->onUlReceived(uplink(77), 1);
    m_engine->onUlReceived(uplink(78), 2);
    m_engine->onUlReceived(uplink(79), 3);
    EXPECT_EQ(uplinks(type::ul_app, outcome::acked), 0);  // nothing settled before the commit
    m_engine->flushDeliveries();
    EXPECT_EQ(uplinks(type::ul_app, outcome::acked), 3);
    const metrics::histogram::snapshot sizes = metrics().batch_size().read();
    EXPECT_EQ(sizes.count, 1u);
    EXPECT_EQ(sizes.sum, 3);
    EXPECT_EQ(metrics().store_seconds(service_metrics::store_operation::commit).read().count, 1u);
    EXPECT_TRUE(metrics().store_up());
}

TEST_F(EngineMetrics, AFailedCommitCountsAsAStoreErrorUntilTheStoreAnswersAgain) {
    failing_batch batch;
    m_messages_override = std::make_shared<batched_messages>(messages(), batch);
    make_engine();
    batch.m_fail_commits = 2;  // the burst's, then the first delivery's own
    m_engine->onUlReceived(uplink(77), 1);
    m_engine->onUlReceived(uplink(78), 2);
    m_engine->flushDeliveries();
    EXPECT_EQ(metrics().store_errors().value(), 2);
    EXPECT_EQ(uplinks(type::ul_app, outcome::rejected_error), 1);
    EXPECT_EQ(uplinks(type::ul_app, outcome::acked), 1);
    // The second delivery's own commit succeeded last: the store answers.
    EXPECT_TRUE(metrics().store_up());

    batch.m_fail_commits = 1;
    m_engine->onUlReceived(uplink(80), 3);
    batch.m_fail_commits = 3;  // the burst's and the delivery's own
    m_engine->flushDeliveries();
    EXPECT_FALSE(metrics().store_up());
    EXPECT_TRUE(metrics().health().body.contains("\"store_error\":\"disk I/O error\""));
}

// With no traffic to tell, the loop asks the idle store a cheap question.
TEST_F(EngineMetrics, AnIdleStoreThatDoesNotAnswerIsReportedDown) {
    m_messages_override = std::make_shared<unreachable_messages>(messages());
    make_engine();
    EXPECT_TRUE(metrics().store_up());
    ASSERT_TRUE(QTest::qWaitFor([&] { return !metrics().store_up(); }, 5000));
    EXPECT_TRUE(metrics().health().body.contains("\"store_error\":\"database is locked\""));
    EXPECT_EQ(metrics().store_errors().value(), 1);
    EXPECT_EQ(metrics().store_seconds(service_metrics::store_operation::probe).read().count, 1u);
}

TEST_F(EngineMetrics, DownlinksAreCountedByWhoAskedWhenTheyGoOut) {
    make_engine();
    model::dl_message message;
    message.modem_id = 77;
    message.data = QJsonObject{{"cmd", "x"}};
    m_engine->sendDlmessage(message);
    EXPECT_EQ(m_api->m_sent.size(), 1u);
    EXPECT_EQ(metrics().downlinks_sent(service_metrics::dl_source::api).value(), 1);
    EXPECT_EQ(metrics().downlinks_sent(service_metrics::dl_source::queue).value(), 0);
    EXPECT_EQ(metrics().downlinks_sent(service_metrics::dl_source::driver).value(), 0);
}

}  // namespace
