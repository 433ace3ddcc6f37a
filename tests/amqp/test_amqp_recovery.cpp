// Recovery of the receiver and the publisher: connections closed by the broker, a
// restart of the broker and an idle connection kept by heartbeats. (A silent broker is
// played by test_amqp_protocol.)
#include <gtest/gtest.h>

#include "amqp/amqp_connection.h"
#include "amqp/rabbit_publisher.h"
#include "amqp/rabbit_receiver.h"
#include "amqp_test_support.h"

using namespace amqp_test;

namespace {

struct raw_collector {
    explicit raw_collector(rabbit_receiver& r) {
        QObject::connect(&r, &rabbit_receiver::raw_data_received, [this](QByteArray payload, uint64_t tag) {
            items.push_back({payload, tag});
        });
    }
    std::vector<std::pair<QByteArray, uint64_t>> items;
};

// The receiver and the publisher come back by themselves after `disrupt`, and the message
// left unacknowledged before comes again.
void expect_recovery(const std::function<bool()>& disrupt) {
    test_log log;
    const QString queue = unique("rx.recover");
    const QString key = unique("recover");
    rabbit_receiver receiver(log.get(), receiver_cfg(queue, {key}), nullptr, true, false);
    raw_collector got(receiver);
    rabbit_publisher_impl publisher(log.get(), publisher_cfg());
    ASSERT_TRUE(
        wait_for([&] { return log.count("Rabbit_man_ul: Queue bound") == 1 && publisher.is_connected(); }));

    // Persistent, so that it survives a restart of the broker.
    ASSERT_TRUE(publish_persistent(exchange(), key, "unacknowledged"));
    ASSERT_TRUE(wait_for([&] { return got.items.size() == 1; }));
    const uint64_t old_tag = got.items[0].second;

    ASSERT_TRUE(disrupt());
    ASSERT_TRUE(wait_for([&] { return log.count("Rabbit_man_ul: Queue bound") == 2; }, 30000));
    ASSERT_TRUE(wait_for([&] { return got.items.size() == 2; }));
    EXPECT_EQ(got.items[1].first, "unacknowledged");
    EXPECT_EQ(log.count("Rabbit_man_ul: Disconnected"), 1);

    // The stale tag is not sent on the new connection; the new one settles the message.
    receiver.ack_message(old_tag, false);
    EXPECT_TRUE(log.text().contains("from an earlier connection dropped"));
    receiver.ack_message(got.items[1].second, false);

    ASSERT_TRUE(wait_for([&] { return publisher.is_connected(); }, 30000));
    EXPECT_EQ(log.count("rabbit_publisher_impl: Disconnected"), 1);
    publisher.publish_string("after", key.toLatin1(), "text/plain");
    ASSERT_TRUE(wait_for([&] { return got.items.size() == 3; }));
    EXPECT_EQ(got.items[2].first, "after");
    spin(500);
    EXPECT_EQ(got.items.size(), 3u);  // the acknowledged message stays acknowledged
}

}  // namespace

TEST(amqp_recovery, after_the_broker_closes_all_connections) {
    expect_recovery([] { return broker_script({"ctl", "close_all_connections", "-p", "/api", "test"}); });
}

TEST(amqp_recovery, after_a_restart_of_the_broker) {
    expect_recovery([] { return broker_script({"restart"}); });
}

TEST(amqp_recovery, heartbeats_keep_an_idle_connection) {
    test_log log;
    const QString key = unique("idle");
    rabbit_receiver receiver(log.get(), receiver_cfg(unique("rx.idle"), {key}), nullptr, true, false);
    receiver.transport().set_heartbeat(1);
    raw_collector got(receiver);
    rabbit_publisher_impl publisher(log.get(), publisher_cfg());
    publisher.transport().set_heartbeat(1);
    ASSERT_TRUE(
        wait_for([&] { return log.count("Rabbit_man_ul: Queue bound") == 1 && publisher.is_connected(); }));
    EXPECT_EQ(receiver.transport().negotiated_heartbeat(), 1);

    spin(7000);  // several intervals with no traffic but heartbeats
    publisher.publish_string("still here", key.toLatin1(), "text/plain");
    ASSERT_TRUE(wait_for([&] { return got.items.size() == 1; }));
    EXPECT_EQ(receiver.transport().generation(), 1u);
    EXPECT_EQ(publisher.transport().generation(), 1u);
    EXPECT_EQ(log.count("Disconnected"), 0);
}
