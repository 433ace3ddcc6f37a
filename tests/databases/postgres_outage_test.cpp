// The PostgreSQL plugin when its server goes away: every call says so with
// store_unavailable, a batch in flight is lost whole (never half-stored), and the link
// comes back by polling, without waiting.

#include "tests/databases/postgres_support.h"

using namespace pg_test;

namespace {

model::ul_message uplink(int modem, qint64 seconds) {
    model::ul_message m;
    m.modem_id = modem;
    m.timestamp = at(seconds);
    m.time_detected = at(seconds);
    m.tag = "t";
    m.unique_id = seconds;
    return m;
}

model::dev_value value(int modem, qint64 seconds) {
    model::dev_value v;
    v.modem_id = modem;
    v.timestamp = at(seconds);
    v.obis_code = "1.8.0";
    v.tag = "t";
    v.value = 1.5;
    return v;
}

// Every kind of store call, each expected to throw store_unavailable.
void expect_every_call_unavailable(stores& s) {
    model::ul_message u = uplink(1, T0);
    EXPECT_THROW(s.messages->ul().save(u), interfaces::store_unavailable);
    model::per_modem<model::ul_message> roll;
    model::roll_query rq;
    rq.modem_id = {1};
    EXPECT_THROW(s.messages->ul().get_roll(roll, rq), interfaces::store_unavailable);
    model::dl_message d;
    EXPECT_THROW(s.messages->dl().save(d), interfaces::store_unavailable);
    EXPECT_THROW(s.messages->dl().get("x"), interfaces::store_unavailable);
    EXPECT_THROW(s.eav->records().save_values({value(1, T0)}), interfaces::store_unavailable);
    EXPECT_THROW(s.state->get(1, "common"), interfaces::store_unavailable);
    EXPECT_THROW(s.state->queues().load(1), interfaces::store_unavailable);
    EXPECT_THROW(s.state->lock(1), interfaces::store_unavailable);
    EXPECT_THROW(s.clients->devices(), interfaces::store_unavailable);
    EXPECT_THROW(s.clients->clients_store().clients(1), interfaces::store_unavailable);
    EXPECT_THROW(s.messages->purge_expired(10), interfaces::store_unavailable);
    EXPECT_THROW(s.messages->write_batch()->begin_batch(), interfaces::store_unavailable);
    EXPECT_FALSE(s.messages->write_batch()->batch_open());
}

class PostgresOutage : public ::testing::Test {
protected:
    void TearDown() override {
        ASSERT_TRUE(server("start"));
        m_stores = stores{};
        raw_session().exec("DROP SCHEMA IF EXISTS " + m_schema + " CASCADE");
    }

    qint64 count(const QString& table) {
        return raw_session().rows("SELECT count(*) FROM " + m_schema + "." + table).toLongLong();
    }

    QString m_schema = unique_schema("outage");
    stores m_stores = open_stores(config_for(m_schema));
};

}  // namespace

TEST_F(PostgresOutage, AServerRestartDuringABatchLosesTheWholeBatchAndTheNextOneIsStored) {
    interfaces::IWriteBatch* batch = m_stores.messages->write_batch();
    interfaces::IStoreLink* link = m_stores.messages->store_link();
    ASSERT_NE(link, nullptr);
    // One session: every object hands out the same batch and link.
    EXPECT_EQ(m_stores.eav->write_batch(), batch);
    EXPECT_EQ(m_stores.state->write_batch(), batch);

    batch->begin_batch();
    batch->begin_item();
    m_stores.messages->ul().save(uplink(1, T0));
    m_stores.eav->records().save_values({value(1, T0), value(1, T0 + 1)});
    EXPECT_TRUE(batch->end_item(true));
    batch->begin_item();
    m_stores.messages->ul().save(uplink(2, T0));

    ASSERT_TRUE(server("restart"));
    EXPECT_THROW(m_stores.eav->records().save_values({value(2, T0)}), interfaces::store_unavailable);
    EXPECT_FALSE(batch->end_item(false));
    // Later calls of the lost batch fail too: nothing goes to a new session on its own.
    EXPECT_THROW(m_stores.messages->ul().save(uplink(3, T0)), interfaces::store_unavailable);
    EXPECT_THROW(batch->commit_batch(), interfaces::store_unavailable);
    EXPECT_FALSE(batch->batch_open());

    ASSERT_TRUE(wait_for_link(*link)) << link->link_error().toStdString();
    EXPECT_EQ(count("ul_messages"), 0);
    EXPECT_EQ(count("dev_values"), 0);

    batch->begin_batch();
    batch->begin_item();
    m_stores.messages->ul().save(uplink(4, T0));
    m_stores.eav->records().save_values({value(4, T0)});
    EXPECT_TRUE(batch->end_item(true));
    batch->commit_batch();
    EXPECT_EQ(count("ul_messages"), 1);
    EXPECT_EQ(count("dev_values"), 1);
}

TEST_F(PostgresOutage, WhileTheServerIsDownEveryCallSaysSoAndPollingBringsTheLinkBack) {
    interfaces::IStoreLink* link = m_stores.messages->store_link();
    m_stores.messages->ul().save(uplink(1, T0));
    std::shared_ptr<void> guard = m_stores.state->lock(3);

    ASSERT_TRUE(server("halt"));
    // The first call finds the session gone; the next ones do not wait for a server.
    EXPECT_THROW(m_stores.clients->devices(), interfaces::store_unavailable);
    expect_every_call_unavailable(m_stores);
    EXPECT_NE(link->poll_link(), interfaces::IStoreLink::link_state::up);
    EXPECT_FALSE(link->link_error().isEmpty());
    guard.reset();  // released with the lost session; nothing to do

    ASSERT_TRUE(server("start"));
    ASSERT_TRUE(wait_for_link(*link)) << link->link_error().toStdString();
    m_stores.messages->ul().save(uplink(2, T0));
    EXPECT_EQ(m_stores.messages->uplink_count(), 2);
    // Statements are prepared again in the new session, and guards work again.
    EXPECT_TRUE(m_stores.state->lock(3));
    EXPECT_EQ(m_stores.db->guard_depth(3), 0);
}

// A server that is not there at start: the store starts with its link down and waits
// to be polled; the error names the server, never the password.
TEST(PostgresAway, AStoreStartedWithoutItsServerReportsTheLinkDownWithoutThePassword) {
    QJsonObject config = config_for(unique_schema("away"));
    config["conninfo"] = "host=127.0.0.1 port=1 dbname=quillon user=quillon password=hunter2";
    stores s = open_stores(config);
    interfaces::IStoreLink* link = s.messages->store_link();
    EXPECT_EQ(link->poll_link(), interfaces::IStoreLink::link_state::down);
    EXPECT_FALSE(link->link_error().isEmpty());
    EXPECT_FALSE(link->link_error().contains("hunter2")) << link->link_error().toStdString();
    try {
        s.clients->devices();
        ADD_FAILURE() << "no exception";
    } catch (const interfaces::store_unavailable& e) {
        EXPECT_TRUE(QString(e.what()).contains("127.0.0.1:1")) << e.what();
        EXPECT_FALSE(QString(e.what()).contains("hunter2")) << e.what();
    }
    expect_every_call_unavailable(s);
}
