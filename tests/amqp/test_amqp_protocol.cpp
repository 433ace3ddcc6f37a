// The connection's side of the AMQP 0-9-1 conversation, against a broker the test plays
// on a loopback socket: the opening handshake, content split over many writes,
// heartbeats, and the broker closing a channel or the whole connection. No broker runs.
#include <gtest/gtest.h>

#include <QSignalSpy>
#include <memory>
#include <vector>

#include "amqp/amqp_connection.h"
#include "amqp/rabbit_publisher.h"
#include "amqp/rabbit_receiver.h"
#include "amqp_test_support.h"
#include "scripted_broker.h"

namespace {

using sb = scripted_broker;

class amqp_protocol : public ::testing::Test {
protected:
    // Connects to the scripted broker with a channel to publish on (channel 1).
    void connect(uint16_t heartbeat_s = 0) {
        m_broker = std::make_unique<scripted_broker>(heartbeat_s);
        m_link = std::make_unique<amqp::connection>(m_log.get());
        m_link->set_heartbeat(heartbeat_s);
        m_link->set_auto_reconnect(false);
        amqp::link_plan plan;
        plan.publish_channel = true;
        m_link->set_plan(plan);
        m_link->connect_to_host(m_broker->url());
        ASSERT_TRUE(amqp_test::wait_for([&] { return m_link->is_connected(); }, 10000))
            << m_link->last_error().toStdString();
    }

    amqp_test::test_log m_log;
    std::unique_ptr<scripted_broker> m_broker;
    std::unique_ptr<amqp::connection> m_link;
};

}  // namespace

TEST_F(amqp_protocol, opens_with_the_protocol_header_logs_in_plainly_and_opens_a_channel) {
    connect();
    EXPECT_EQ(m_broker->greeting(), QByteArray("AMQP\x00\x00\x09\x01", 8));
    const auto frames = m_broker->frames();
    ASSERT_GE(frames.size(), 4u);
    // start-ok, tune-ok, connection.open, channel.open: in this order.
    EXPECT_EQ(frames[0].class_id(), 10);
    EXPECT_EQ(frames[0].method_id(), 11);
    EXPECT_TRUE(frames[0].payload.contains(sb::short_string("PLAIN")));
    EXPECT_TRUE(frames[0].payload.contains(sb::long_string(QByteArray("\0guest\0guest", 12))));
    EXPECT_EQ(frames[1].method_id(), 31);
    EXPECT_EQ(frames[2].method_id(), 40);
    EXPECT_EQ(frames[2].payload.mid(4, 2), sb::short_string("/"));  // the URL's virtual host
    EXPECT_EQ(frames[3].class_id(), 20);
    EXPECT_EQ(frames[3].method_id(), 10);
    EXPECT_EQ(frames[3].channel, 1);
    for (const auto& f : frames) {
        EXPECT_EQ(f.channel == 0, f.class_id() == 10) << "connection methods on channel 0 only";
    }
}

TEST_F(amqp_protocol, a_delivery_written_in_pieces_arrives_once_and_whole) {
    connect();
    std::vector<amqp::message> delivered;
    QObject::connect(m_link.get(), &amqp::connection::delivered,
                     [&](const amqp::message& msg) { delivered.push_back(msg); });
    const QByteArray deliver =
        sb::method(1, 60, 60,
                   sb::short_string("ctag-1") + sb::longlong_uint(42) + QByteArray(1, 1) +
                       sb::short_string("norvik.api") + sb::short_string("ul.key"));
    // Content header: class 60, weight 0, body size 11, flags with content-type (bit 15).
    const QByteArray header = sb::frame_bytes(2, 1,
                                              sb::short_uint(60) + sb::short_uint(0) + sb::longlong_uint(11) +
                                                  sb::short_uint(0x8000) + sb::short_string("text/plain"));
    const QByteArray body = sb::frame_bytes(3, 1, "hello ") + sb::frame_bytes(3, 1, "world");
    const QByteArray all = deliver + header + body;
    // Everything but the last piece: no delivery may come out of a partial message.
    m_broker->send_in_pieces(all.left(all.size() - 1), 3, 1);
    amqp_test::spin(200);
    EXPECT_TRUE(delivered.empty());
    m_broker->send(all.right(1));
    ASSERT_TRUE(amqp_test::wait_for([&] { return delivered.size() == 1; }, 5000));
    amqp_test::spin(100);
    ASSERT_EQ(delivered.size(), 1u);
    const amqp::message& msg = delivered[0];
    EXPECT_EQ(msg.channel, 1);
    EXPECT_EQ(msg.delivery_tag, 42u);
    EXPECT_TRUE(msg.redelivered);
    EXPECT_EQ(msg.exchange, "norvik.api");
    EXPECT_EQ(msg.routing_key, "ul.key");
    EXPECT_EQ(msg.consumer_tag, "ctag-1");
    EXPECT_EQ(msg.content_type, "text/plain");
    EXPECT_EQ(msg.payload, QByteArray("hello world"));
}

TEST_F(amqp_protocol, heartbeats_keep_the_link_and_silence_loses_it) {
    connect(1);
    QSignalSpy lost(m_link.get(), &amqp::connection::disconnected);
    // type 8, channel 0, size 0, end octet.
    const QByteArray heartbeat("\x08\x00\x00\x00\x00\x00\x00\xCE", 8);
    for (int i = 0; i < 10; ++i) {
        m_broker->send(heartbeat);
        amqp_test::spin(300);
    }
    EXPECT_EQ(lost.count(), 0) << m_link->last_error().toStdString();
    EXPECT_TRUE(m_link->is_connected());
    EXPECT_GE(m_broker->heartbeats_received(), 1);
    for (const auto& f : m_broker->frames()) {
        if (f.type == 8) {
            EXPECT_EQ(f.channel, 0);
            EXPECT_TRUE(f.payload.isEmpty());
        }
    }

    m_broker->go_silent();  // no heartbeats, no answer, the socket still open
    ASSERT_TRUE(amqp_test::wait_for([&] { return lost.count() == 1; }, 10000));
    EXPECT_FALSE(m_link->is_connected());
    EXPECT_EQ(m_log.count("lost:"), 1);
}

// A broker that stops answering while its socket stays open (a stopped process) is a
// lost link after two heartbeat intervals, with that reason in the log; the link is then
// made again by itself, as a new connection.
TEST_F(amqp_protocol, a_silent_broker_is_a_lost_link_that_is_made_again) {
    m_broker = std::make_unique<scripted_broker>(1);
    amqp::connection link(m_log.get());
    link.set_heartbeat(1);
    link.set_rpc_timeout(1000);
    QSignalSpy lost(&link, &amqp::connection::disconnected);
    link.connect_to_host(m_broker->url());
    ASSERT_TRUE(amqp_test::wait_for([&] { return link.is_connected(); }, 10000))
        << link.last_error().toStdString();
    EXPECT_EQ(link.generation(), 1u);

    m_broker->go_silent();
    ASSERT_TRUE(amqp_test::wait_for([&] { return lost.count() == 1; }, 10000));
    EXPECT_TRUE(m_log.text().contains("no heartbeat from the broker for two intervals"))
        << m_log.text().toStdString();
    ASSERT_TRUE(amqp_test::wait_for([&] { return link.is_connected(); }, 30000));
    EXPECT_GE(link.generation(), 2u);
    EXPECT_GE(m_broker->clients(), 2);
}

TEST_F(amqp_protocol, a_channel_closed_by_the_broker_is_answered_and_reported_while_the_link_stays) {
    connect();
    struct closure {
        uint16_t channel;
        int code;
        QString text;
    };
    std::vector<closure> closed;
    QObject::connect(m_link.get(), &amqp::connection::channel_closed,
                     [&](uint16_t channel, int code, const QString& text) {
                         closed.push_back({channel, code, text});
                     });
    QSignalSpy lost(m_link.get(), &amqp::connection::disconnected);
    ASSERT_TRUE(m_link->channel_open(1));
    m_broker->send(sb::method(1, 20, 40,
                              sb::short_uint(404) + sb::short_string("NOT_FOUND - no exchange 'x'") +
                                  sb::short_uint(60) + sb::short_uint(40)));
    ASSERT_TRUE(amqp_test::wait_for([&] { return closed.size() == 1; }, 5000));
    EXPECT_EQ(closed[0].channel, 1);
    EXPECT_EQ(closed[0].code, 404);
    EXPECT_EQ(closed[0].text, "NOT_FOUND - no exchange 'x'");
    ASSERT_TRUE(amqp_test::wait_for([&] { return m_broker->received(20, 41, 1); }, 5000));
    EXPECT_FALSE(m_link->channel_open(1));
    EXPECT_TRUE(m_link->is_connected());
    EXPECT_EQ(lost.count(), 0);
    EXPECT_EQ(m_log.count("the broker closed channel 1: 404 NOT_FOUND - no exchange 'x'"), 1);
}

TEST_F(amqp_protocol, a_connection_closed_by_the_broker_is_answered_and_the_link_lost) {
    connect();
    QSignalSpy lost(m_link.get(), &amqp::connection::disconnected);
    m_broker->send(sb::method(0, 10, 50,
                              sb::short_uint(320) + sb::short_string("CONNECTION_FORCED - shutdown") +
                                  sb::short_uint(0) + sb::short_uint(0)));
    ASSERT_TRUE(amqp_test::wait_for([&] { return lost.count() == 1; }, 5000));
    EXPECT_TRUE(m_broker->received(10, 51, 0));
    EXPECT_FALSE(m_link->is_connected());
    EXPECT_TRUE(m_link->last_error().contains("closed by the broker: 320 CONNECTION_FORCED - shutdown"))
        << m_link->last_error().toStdString();
}

TEST_F(amqp_protocol, a_frame_without_its_end_octet_loses_the_link) {
    connect();
    QSignalSpy lost(m_link.get(), &amqp::connection::disconnected);
    QByteArray broken = sb::frame_bytes(8, 0, QByteArray());
    broken[broken.size() - 1] = '\0';
    m_broker->send(broken);
    ASSERT_TRUE(amqp_test::wait_for([&] { return lost.count() == 1; }, 5000));
    EXPECT_FALSE(m_link->is_connected());
}

// The consumer's set-up and its settlements as they appear on the wire.
TEST_F(amqp_protocol, the_receiver_sets_up_its_queue_and_acknowledges_by_delivery_tag) {
    m_broker = std::make_unique<scripted_broker>();
    rabbit_receiver_cfg cfg;
    cfg.url = m_broker->url();
    cfg.queue = "uplinks";
    cfg.vhost = "/";
    cfg.bindings = {{"norvik.api", "ul.#"}};
    cfg.prefetch = 7;
    cfg.heartbeat = 0;
    rabbit_receiver receiver(m_log.get(), cfg);
    std::vector<std::pair<QJsonObject, uint64_t>> received;
    QObject::connect(&receiver, &rabbit_receiver::data_received,
                     [&](const QJsonObject& json, uint64_t tag) { received.emplace_back(json, tag); });
    ASSERT_TRUE(amqp_test::wait_for([&] { return m_broker->received(60, 20); }, 10000));
    for (const auto& f : m_broker->frames()) {
        if (f.class_id() == 50 && f.method_id() == 10) {
            EXPECT_EQ(f.payload.mid(6, 8), sb::short_string("uplinks"));
        }
        if (f.class_id() == 50 && f.method_id() == 20) {
            EXPECT_TRUE(f.payload.contains(sb::short_string("norvik.api") + sb::short_string("ul.#")));
        }
        if (f.class_id() == 60 && f.method_id() == 10) {  // prefetch-size long, prefetch-count short
            EXPECT_EQ(f.payload.mid(4, 6), sb::long_uint(0) + sb::short_uint(7));
        }
    }
    const QByteArray json = R"({"msg_type":"ul_app","modem_id":5})";
    m_broker->send(sb::method(1, 60, 60,
                              sb::short_string("ctag-1") + sb::longlong_uint(9) + QByteArray(1, 0) +
                                  sb::short_string("norvik.api") + sb::short_string("ul.x")) +
                   sb::frame_bytes(2, 1,
                                   sb::short_uint(60) + sb::short_uint(0) + sb::longlong_uint(json.size()) +
                                       sb::short_uint(0)) +
                   sb::frame_bytes(3, 1, json));
    ASSERT_TRUE(amqp_test::wait_for([&] { return received.size() == 1; }, 5000));
    EXPECT_EQ(received[0].first.value("modem_id").toInt(), 5);
    // The receiver's tag for the delivery tells connections apart; the wire carries the broker's.
    receiver.ack_message(received[0].second, false);
    receiver.flush_settlements();
    // basic.ack: delivery-tag longlong 9, multiple bit 0.
    const QByteArray ack = sb::short_uint(60) + sb::short_uint(80) + sb::longlong_uint(9) + QByteArray(1, 0);
    ASSERT_TRUE(amqp_test::wait_for(
        [&] {
            for (const auto& f : m_broker->frames()) {
                if (f.type == 1 && f.channel == 1 && f.payload == ack) {
                    return true;
                }
            }
            return false;
        },
        5000));
}

// A publication into an exchange the broker refuses costs its channel, not the connection:
// the next publication goes out on a channel opened again.
TEST_F(amqp_protocol, the_publisher_reopens_its_channel_after_the_broker_closed_it) {
    m_broker = std::make_unique<scripted_broker>();
    rabbit_publisher_config cfg;
    cfg.url = m_broker->url();
    cfg.exchange = "no.such.exchange";
    cfg.vhost = "/";
    cfg.heartbeat = 0;
    rabbit_publisher_impl publisher(m_log.get(), cfg);
    ASSERT_TRUE(amqp_test::wait_for([&] { return publisher.is_connected(); }, 10000));
    auto publishes_on = [&](const QByteArray& body) {
        int channel = -1;
        for (const auto& f : m_broker->frames()) {
            if (f.type == 1 && f.class_id() == 60 && f.method_id() == 40) {
                channel = f.channel;
            }
            if (f.type == 3 && f.payload == body) {
                return channel;
            }
        }
        return -1;
    };
    publisher.publish_string("one", "k", "text/plain");
    publisher.transport().flush_writes();
    ASSERT_TRUE(amqp_test::wait_for([&] { return publishes_on("one") > 0; }, 5000));
    const int first = publishes_on("one");
    m_broker->send(sb::method(uint16_t(first), 20, 40,
                              sb::short_uint(404) +
                                  sb::short_string("NOT_FOUND - no exchange 'no.such.exchange'") +
                                  sb::short_uint(60) + sb::short_uint(40)));
    ASSERT_TRUE(amqp_test::wait_for([&] { return m_broker->received(20, 41, first); }, 5000));

    publisher.publish_string("two", "k", "text/plain");
    publisher.transport().flush_writes();
    ASSERT_TRUE(amqp_test::wait_for([&] { return publishes_on("two") > 0; }, 5000));
    int opens = 0;
    for (const auto& f : m_broker->frames()) {
        opens += f.type == 1 && f.class_id() == 20 && f.method_id() == 10 ? 1 : 0;
    }
    EXPECT_EQ(opens, 2);  // the set-up's channel, then the one opened again
    EXPECT_TRUE(publisher.is_connected());
    EXPECT_EQ(publisher.transport().generation(), 1u);
    EXPECT_EQ(m_log.count("404 NOT_FOUND - no exchange 'no.such.exchange'"), 1);
}
