// The engine over the SQLite store: the deliveries of a burst share one transaction and
// are settled only once it is committed.

#include <QCoreApplication>
#include <QJsonDocument>

#include "sqlite_engine_fixture.h"

namespace {

QJsonObject heartbeat(int modem) {
    return QJsonObject{
        {"msg_type", "ul_hb"}, {"modem_id", modem}, {"protocol", "proto7"},        {"hw_type", "X"},
        {"payload", "0102"},   {"iterator", 5},     {"time_detected", 1900000000}, {"temperature", 21.5},
        {"voltage", 3.6}};
}

}  // namespace

TEST_F(EngineBatch, ABurstIsCommittedBeforeAnyOfItIsSettled) {
    make_engine();
    m_driver->m_explode_throws_for_modem = 78;
    QString stored_at_first_ack;
    m_receiver->m_on_ack = [&](uint64_t) {
        if (stored_at_first_ack.isEmpty()) {
            stored_at_first_ack = committed("SELECT group_concat(modem_id) FROM ul_messages");
        }
    };

    m_engine->onUlReceived(uplink(77), 1);
    m_engine->onUlReceived(uplink(78), 2);           // fails after its message was saved
    m_engine->onUlReceived(heartbeat(80), 3);        // stored, then rejected
    m_engine->onUlReceived(uplink(79, "other"), 4);  // not this driver's
    EXPECT_TRUE(m_receiver->m_acked.empty());
    EXPECT_TRUE(m_receiver->m_rejected.empty());
    EXPECT_EQ(committed("SELECT COUNT(*) FROM ul_messages"), "0");

    m_engine->flushDeliveries();
    all_durable();
    EXPECT_EQ(m_receiver->m_acked, (std::vector<uint64_t>{1}));
    EXPECT_EQ(m_receiver->m_rejected, (std::vector<uint64_t>{2, 3, 4}));
    // The failed uplink's saved message went with it; its neighbours' writes stayed.
    EXPECT_EQ(stored_at_first_ack, "77,80");
    EXPECT_EQ(committed("SELECT group_concat(modem_id) FROM (SELECT modem_id FROM dev_values ORDER BY id)"),
              "77,80,80");
    EXPECT_TRUE(
        log_text().contains("onUlReceived throw catch. Std::exception: explode failed Message_tag: 2"));
}

TEST_F(EngineBatch, HalfThePrefetchWindowIsSettledWithoutWaitingForTheBurstToEnd) {
    m_prefetch = 6;
    make_engine();
    m_engine->onUlReceived(uplink(1), 1);
    m_engine->onUlReceived(uplink(2), 2);
    EXPECT_TRUE(m_receiver->m_acked.empty());
    m_engine->onUlReceived(uplink(3), 3);
    all_durable();
    EXPECT_EQ(m_receiver->m_acked, (std::vector<uint64_t>{1, 2, 3}));
    EXPECT_EQ(committed("SELECT COUNT(*) FROM ul_messages"), "3");

    // A delivery that no burst end follows is settled when the event loop turns.
    m_engine->onUlReceived(uplink(4), 4);
    EXPECT_EQ(m_receiver->m_acked.size(), 3u);
    QCoreApplication::processEvents();
    all_durable();
    EXPECT_EQ(m_receiver->m_acked, (std::vector<uint64_t>{1, 2, 3, 4}));
}
