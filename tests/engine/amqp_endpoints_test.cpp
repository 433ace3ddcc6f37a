// The engine's outputs over the broker endpoints, as they appear on the wire of a broker
// the test plays: which settlement is which frame, and what a publication carries.
#include <gtest/gtest.h>

#include <QJsonObject>
#include <memory>
#include <utility>
#include <vector>

#include "amqp/amqp_connection.h"
#include "amqp_test_support.h"
#include "engine/amqp_endpoints.h"
#include "scripted_broker.h"

namespace {

using sb = scripted_broker;

bool sent_method(const scripted_broker& broker, uint16_t channel, const QByteArray& payload) {
    for (const auto& f : broker.frames()) {
        if (f.type == 1 && f.channel == channel && f.payload == payload) {
            return true;
        }
    }
    return false;
}

QByteArray delivery(uint64_t tag, const QByteArray& json) {
    return sb::method(1, 60, 60,
                      sb::short_string("ctag-1") + sb::longlong_uint(tag) + QByteArray(1, 0) +
                          sb::short_string("norvik.api") + sb::short_string("ul.x")) +
           sb::frame_bytes(2, 1,
                           sb::short_uint(60) + sb::short_uint(0) + sb::longlong_uint(uint64_t(json.size())) +
                               sb::short_uint(0)) +
           sb::frame_bytes(3, 1, json);
}

class amqp_endpoints_wire : public ::testing::Test {
protected:
    void SetUp() override {
        rabbit_receiver_cfg receiver_cfg;
        receiver_cfg.url = m_uplinks.url();
        receiver_cfg.queue = "uplinks";
        receiver_cfg.vhost = "/";
        receiver_cfg.bindings = {{"norvik.api", "ul.#"}};
        receiver_cfg.prefetch = 5;
        receiver_cfg.heartbeat = 0;
        rabbit_publisher_clients_config clients_cfg;
        clients_cfg.url = m_clients.url();
        clients_cfg.exchange = "norvik.clients";
        clients_cfg.vhost = "/";
        clients_cfg.heartbeat = 0;
        rabbit_api_config api_cfg;
        api_cfg.url = amqp_test::dead_url();
        api_cfg.queue = "cmd";
        api_cfg.bindings = {{"norvik.api", "cmd.in.quillon"}};
        api_cfg.api_key = "key1";
        m_endpoints = std::make_unique<amqp_endpoints>(
            std::make_unique<rabbit_receiver>(m_log.get(), receiver_cfg),
            std::make_unique<rabbit_publisher<rabbit_publisher_clients_config>>(m_log.get(), clients_cfg),
            std::make_unique<rabbit_api_man>(m_log.get(), api_cfg, command_factory()));
        QObject::connect(
            &m_endpoints->receiver(), &rabbit_receiver::data_received,
            [this](const QJsonObject& json, uint64_t tag) { m_received.emplace_back(json, tag); });
    }

    amqp_test::test_log m_log;
    scripted_broker m_uplinks;
    scripted_broker m_clients;
    std::unique_ptr<amqp_endpoints> m_endpoints;
    std::vector<std::pair<QJsonObject, uint64_t>> m_received;
};

}  // namespace

TEST_F(amqp_endpoints_wire, acknowledge_reject_and_requeue_are_three_different_frames) {
    ASSERT_TRUE(amqp_test::wait_for([&] { return m_uplinks.received(60, 20); }, 10000));
    for (uint64_t tag = 1; tag <= 3; ++tag) {
        m_uplinks.send(
            delivery(tag, QByteArray(R"({"modem_id":)") + QByteArray::number(qulonglong(tag)) + "}"));
    }
    ASSERT_TRUE(amqp_test::wait_for([&] { return m_received.size() == 3; }, 5000));

    delivery_settler& settler = *m_endpoints;
    EXPECT_EQ(settler.prefetch(), 5);
    settler.ack_message(m_received[0].second);
    settler.reject_message(m_received[1].second);
    settler.requeue_message(m_received[2].second);
    settler.flush_settlements();
    // basic.ack: tag, multiple 0; basic.reject: tag, requeue 0 (for good) or 1 (back to the queue).
    const QByteArray ack = sb::short_uint(60) + sb::short_uint(80) + sb::longlong_uint(1) + QByteArray(1, 0);
    const QByteArray reject =
        sb::short_uint(60) + sb::short_uint(90) + sb::longlong_uint(2) + QByteArray(1, 0);
    const QByteArray requeue =
        sb::short_uint(60) + sb::short_uint(90) + sb::longlong_uint(3) + QByteArray(1, 1);
    EXPECT_TRUE(amqp_test::wait_for([&] { return sent_method(m_uplinks, 1, requeue); }, 5000));
    EXPECT_TRUE(sent_method(m_uplinks, 1, ack));
    EXPECT_TRUE(sent_method(m_uplinks, 1, reject));
}

TEST_F(amqp_endpoints_wire, pausing_cancels_the_consumer_and_resuming_consumes_again) {
    ASSERT_TRUE(amqp_test::wait_for([&] { return m_uplinks.received(60, 20); }, 10000));
    // The link is handed over with its consumer running.
    ASSERT_TRUE(
        amqp_test::wait_for([&] { return m_log.count("consuming queue uplinks as ctag-1") == 1; }, 5000));
    delivery_settler& settler = *m_endpoints;
    settler.pause_consuming();
    ASSERT_TRUE(amqp_test::wait_for([&] { return m_uplinks.received(60, 30, 1); }, 5000));
    for (const auto& f : m_uplinks.frames()) {
        if (f.class_id() == 60 && f.method_id() == 30) {
            EXPECT_EQ(f.payload.mid(4, 7), sb::short_string("ctag-1"));
        }
    }
    settler.resume_consuming();
    EXPECT_TRUE(amqp_test::wait_for(
        [&] {
            int consumes = 0;
            for (const auto& f : m_uplinks.frames()) {
                consumes += f.class_id() == 60 && f.method_id() == 20 ? 1 : 0;
            }
            return consumes == 2;
        },
        5000));
}

TEST_F(amqp_endpoints_wire, a_publication_carries_exchange_key_mime_type_and_body) {
    publication_sink& sink = *m_endpoints;
    const QByteArray body = R"({"modem_id":77})";
    sink.publish(body, "c.0.ul_roll.X.t.null.77", "text/plain");
    m_endpoints->publisher().transport().flush_writes();
    // basic.publish: reserved short, exchange, routing key, then the mandatory/immediate bits.
    const QByteArray publish_prefix = sb::short_uint(60) + sb::short_uint(40) + sb::short_uint(0) +
                                      sb::short_string("norvik.clients") +
                                      sb::short_string("c.0.ul_roll.X.t.null.77");
    ASSERT_TRUE(amqp_test::wait_for(
        [&] {
            for (const auto& f : m_clients.frames()) {
                if (f.type == 3) {
                    return true;
                }
            }
            return false;
        },
        5000));
    const auto frames = m_clients.frames();
    std::size_t at = 0;
    while (at < frames.size() && !(frames[at].type == 1 && frames[at].payload.startsWith(publish_prefix))) {
        ++at;
    }
    ASSERT_LT(at + 2, frames.size() + 0) << "no basic.publish with its content";
    EXPECT_EQ(frames[at].payload.size(), publish_prefix.size() + 1);
    // Content header: class 60, weight 0, body size, flags; content-type is bit 15.
    const auto& header = frames[at + 1];
    EXPECT_EQ(header.type, 2);
    EXPECT_EQ(header.payload.left(12), sb::short_uint(60) + sb::short_uint(0) + sb::longlong_uint(15));
    EXPECT_TRUE(uint8_t(header.payload.at(12)) & 0x80);
    EXPECT_EQ(header.payload.mid(14, 11), sb::short_string("text/plain"));
    EXPECT_EQ(frames[at + 2].type, 3);
    EXPECT_EQ(frames[at + 2].payload, body);

    const command_sender& commands = *m_endpoints;
    EXPECT_EQ(commands.api_key(), "key1");
}
