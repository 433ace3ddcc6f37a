// Dead-lettered uplinks of the real service and `quillon-cli replay` on the private broker.
#include <gtest/gtest.h>
#include <QJsonDocument>
#include <QProcess>
#include <QRegularExpression>
#include <QSet>
#include <QVariantList>
#include <QVariantMap>
#include <memory>

#include "amqp/amqp_connection.h"
#include "amqp/amqp_queue.h"
#include "tests/support/service_harness.h"
#include "tests/tools/broker_admin.h"
#include "tests/tools/tool_process.h"

using tools_test::broker_admin;
using tools_test::run_tool;
using tools_test::tool_result;

namespace {

// The service's uplink queue: R_QUEUE extended by protocol, instance, position and count.
QString uplink_queue_of(const QString& r_queue) {
    return r_queue + "_proto7_marl2_0from1";
}

// The messages of a queue as the adapter delivers them, headers included. Nothing is
// acknowledged: closing the connection puts them back.
std::vector<amqp::message> peek(const QString& queue, size_t count) {
    logger log("/dev/null", Error, "peek");
    std::vector<amqp::message> seen;
    amqp::connection conn(log);
    conn.set_virtual_host("/api");
    conn.connect_to_host(e2e::broker_url());
    if (!e2e::wait_until([&] { return conn.is_connected(); })) {
        return seen;
    }
    amqp::queue* q = conn.create_queue(queue);
    QObject::connect(q, &amqp::queue::messageReceived, q, [&] {
        while (!q->isEmpty()) {
            seen.push_back(q->dequeue());
        }
    });
    q->consume(0);
    e2e::wait_until([&] { return seen.size() >= count; });
    conn.disconnect_from_host();
    return seen;
}

// The first x-death entry of a dead-lettered message.
QVariantMap first_death(const amqp::message& m) {
    const QVariantList deaths = m.headers.value("x-death").toList();
    return deaths.isEmpty() ? QVariantMap{} : deaths.first().toMap();
}

const amqp::message* with_body(const std::vector<amqp::message>& messages, const QByteArray& body) {
    for (const auto& m : messages) {
        if (m.payload == body) {
            return &m;
        }
    }
    return nullptr;
}

class Replay : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(m_admin.connected()) << m_admin.error().toStdString();
        m_r_queue = e2e::unique_name("ul");
        m_uplink_queue = uplink_queue_of(m_r_queue);
        m_service.set("AMQP_UL_SETTINGS", "R_QUEUE", m_r_queue);
        m_service.set_database("db_driver_dummy", QJsonObject{{"devices", QJsonObject{}}});
        m_tag = e2e::unique_name("dl").toLower();
    }

    void TearDown() override {
        m_service.stop();
        m_admin.delete_queue(m_uplink_queue);
        if (!m_dlq.isEmpty()) {
            m_admin.delete_queue(m_dlq);
            m_admin.delete_exchange(m_dlx);
        }
    }

    // A dead-letter exchange of the given type with a queue bound to it by `key`.
    void dead_letter_to(const QString& type, const QString& key) {
        m_dlx = e2e::unique_name("dlx");
        m_dlq = e2e::unique_name("dlq");
        ASSERT_TRUE(m_admin.declare_exchange(m_dlx, type)) << m_admin.error().toStdString();
        ASSERT_TRUE(m_admin.declare_queue(m_dlq, true)) << m_admin.error().toStdString();
        ASSERT_TRUE(m_admin.bind(m_dlq, m_dlx, key)) << m_admin.error().toStdString();
        m_service.set("AMQP_UL_SETTINGS", "R_DEAD_LETTER_EXCHANGE", m_dlx);
    }

    // An uplink routing key the service is bound to ("*.0.ul.marl2.proto7.#"), of this test.
    QString uplink_key(const QString& name) const { return "nc.0.ul.marl2.proto7." + m_tag + "." + name; }

    bool queue_holds(const QString& queue, int64_t count) {
        return e2e::wait_until([&] { return m_admin.message_count(queue) == count; });
    }

    tool_result replay(const QStringList& arguments) {
        return run_tool("quillon-cli", QStringList{"-c", m_service.working_dir() + "/quillon.ini", "replay",
                                                   "--queue", m_dlq} +
                                           arguments);
    }

    broker_admin m_admin;
    e2e::service_process m_service;
    QString m_r_queue;
    QString m_uplink_queue;
    QString m_dlx;
    QString m_dlq;
    QString m_tag;
};

const QByteArray not_json = "not json {\x01\x02 at all";
const QByteArray foreign_uplink =
    R"({"msg_type":"ul_app","modem_id":77,"protocol":"otherproto","hw_type":"X","payload":"0a0b","iterator":1})";

TEST_F(Replay, RejectedUplinksAreDeadLetteredIntactAndReplayMovesThemBackUnderTheirOriginalKeys) {
    dead_letter_to("fanout", "");
    ASSERT_TRUE(m_service.start()) << m_service.log().toStdString();
    const QString key_text = uplink_key("text");
    const QString key_foreign = uplink_key("foreign");
    ASSERT_TRUE(m_admin.publish("norvik.api", key_text, not_json));
    ASSERT_TRUE(m_admin.publish("norvik.api", key_foreign, foreign_uplink));
    ASSERT_TRUE(queue_holds(m_dlq, 2)) << m_service.log().right(3000).toStdString();

    // Bodies intact, the keys they were published with, and why they died.
    const auto dead = peek(m_dlq, 2);
    ASSERT_EQ(dead.size(), 2u);
    const amqp::message* text = with_body(dead, not_json);
    const amqp::message* foreign = with_body(dead, foreign_uplink);
    ASSERT_TRUE(text && foreign);
    EXPECT_EQ(text->routing_key, key_text);
    const QVariantMap death = first_death(*text);
    EXPECT_EQ(death.value("routing-keys").toList(), QVariantList{key_text});
    EXPECT_EQ(death.value("exchange").toString(), "norvik.api");
    EXPECT_EQ(death.value("queue").toString(), m_uplink_queue);
    EXPECT_EQ(death.value("reason").toString(), "rejected");
    EXPECT_EQ(death.value("count").toLongLong(), 1);
    EXPECT_EQ(first_death(*foreign).value("routing-keys").toList(), QVariantList{key_foreign});
    ASSERT_TRUE(queue_holds(m_dlq, 2));

    // The cause is dealt with while the service is down; its queue stays bound.
    ASSERT_EQ(m_service.stop(), 0);
    e2e::probe back({uplink_key("*")});
    ASSERT_TRUE(back.wait_ready());

    const tool_result dry = replay({"--dry-run"});
    ASSERT_EQ(dry.status, 0) << dry.err.toStdString();
    EXPECT_TRUE(dry.out.contains("would move: " + key_text + "  " + QString::number(not_json.size()) +
                                 " bytes  not json {.. at all"))
        << dry.out.toStdString();
    EXPECT_TRUE(dry.out.contains("would move: " + key_foreign + "  " +
                                 QString::number(foreign_uplink.size()) + " bytes  {\"msg_type\":\"ul_app\""))
        << dry.out.toStdString();
    EXPECT_TRUE(dry.out.contains("nothing was moved")) << dry.out.toStdString();
    EXPECT_TRUE(queue_holds(m_dlq, 2));

    const tool_result one = replay({"--count", "1"});
    ASSERT_EQ(one.status, 0) << one.err.toStdString() << one.out.toStdString();
    EXPECT_EQ(one.out.count("moved: "), 1) << one.out.toStdString();
    EXPECT_TRUE(one.out.contains("replay: moved 1 of 2 message(s) from " + m_dlq + " to exchange norvik.api"))
        << one.out.toStdString();
    ASSERT_TRUE(back.wait_for(1));
    EXPECT_TRUE(queue_holds(m_dlq, 1));

    const tool_result rest = replay({});
    ASSERT_EQ(rest.status, 0) << rest.err.toStdString() << rest.out.toStdString();
    EXPECT_TRUE(rest.out.contains("replay: moved 1 of 1 message(s)")) << rest.out.toStdString();
    ASSERT_TRUE(back.wait_for(2));
    EXPECT_TRUE(queue_holds(m_dlq, 0));
    // Exactly the two, each under its own first key and with its body (the dry run sent nothing).
    ASSERT_EQ(back.messages().size(), 2u);
    QSet<QString> pairs;
    for (const auto& m : back.messages()) {
        pairs.insert(m.routing_key + " " + QString::fromLatin1(m.payload.toHex()));
    }
    EXPECT_EQ(pairs, (QSet<QString>{key_text + " " + QString::fromLatin1(not_json.toHex()),
                                    key_foreign + " " + QString::fromLatin1(foreign_uplink.toHex())}));
    // They wait in the service's own queue, and a service that still cannot take them
    // dead-letters them once more.
    EXPECT_TRUE(queue_holds(m_uplink_queue, 2));
    ASSERT_TRUE(m_service.start()) << m_service.log().toStdString();
    EXPECT_TRUE(queue_holds(m_dlq, 2));
}

TEST_F(Replay, UsesTheKeyFromXDeathWhenTheDeadLetterKeyReplacedItAndLeavesMessagesWithoutOne) {
    dead_letter_to("direct", "dead");
    m_service.set("AMQP_UL_SETTINGS", "R_DEAD_LETTER_ROUTING_KEY", "dead");
    ASSERT_TRUE(m_service.start()) << m_service.log().toStdString();
    const QString key = uplink_key("renamed");
    ASSERT_TRUE(m_admin.publish("norvik.api", key, not_json));
    ASSERT_TRUE(queue_holds(m_dlq, 1)) << m_service.log().right(3000).toStdString();
    const auto dead = peek(m_dlq, 1);
    ASSERT_EQ(dead.size(), 1u);
    EXPECT_EQ(dead.front().routing_key, "dead");
    EXPECT_EQ(first_death(dead.front()).value("routing-keys").toList(), QVariantList{key});
    ASSERT_TRUE(queue_holds(m_dlq, 1));

    // Put straight into the queue: no x-death, so no way to know where it belongs.
    ASSERT_TRUE(m_admin.publish("", m_dlq, "stray"));
    ASSERT_TRUE(queue_holds(m_dlq, 2));
    ASSERT_EQ(m_service.stop(), 0);
    e2e::probe back({uplink_key("*"), "dead"});
    ASSERT_TRUE(back.wait_ready());

    // An exchange where no queue takes the key: the broker returns it, it stays.
    const tool_result nowhere = replay({"--exchange", "amq.direct"});
    EXPECT_EQ(nowhere.status, 2) << nowhere.err.toStdString() << nowhere.out.toStdString();
    EXPECT_TRUE(nowhere.out.contains("left in queue: " + key + " (no queue is bound to it on amq.direct)"))
        << nowhere.out.toStdString();
    EXPECT_TRUE(nowhere.out.contains("moved 0 of 2 message(s) from " + m_dlq +
                                     " to exchange amq.direct, 2 left in the queue"))
        << nowhere.out.toStdString();
    EXPECT_TRUE(queue_holds(m_dlq, 2));

    const tool_result r = replay({});
    EXPECT_EQ(r.status, 2) << r.err.toStdString() << r.out.toStdString();
    EXPECT_TRUE(r.out.contains("moved: " + key + "  ")) << r.out.toStdString();
    EXPECT_TRUE(
        r.out.contains("left in queue: (routing key " + m_dlq + ", no x-death header)  5 bytes  stray"))
        << r.out.toStdString();
    EXPECT_TRUE(r.out.contains("replay: moved 1 of 2 message(s) from " + m_dlq +
                               " to exchange norvik.api, 1 left in the queue"))
        << r.out.toStdString();
    ASSERT_TRUE(back.wait_for(1));
    EXPECT_EQ(back.messages().front().routing_key, key);
    EXPECT_EQ(back.messages().front().payload, not_json);
    EXPECT_TRUE(queue_holds(m_dlq, 1));
}

TEST_F(Replay, NamesAQueueThatDoesNotExist) {
    const tool_result r = run_tool("quillon-cli", {"replay", "--queue", e2e::unique_name("missing"), "--url",
                                                   e2e::broker_url(), "--vhost", "/api"});
    EXPECT_EQ(r.status, 1);
    EXPECT_TRUE(r.err.contains("404 NOT_FOUND")) << r.err.toStdString();
    EXPECT_TRUE(r.out.isEmpty()) << r.out.toStdString();
}

// The queue types of the running broker, by name.
QMap<QString, QString> queue_types() {
    QProcess ctl;
    ctl.start(QUILLON_TEST_BROKER, {"ctl", "list_queues", "-p", "/api", "name", "type"});
    ctl.waitForFinished(60000);
    QMap<QString, QString> types;
    for (const QString& line : QString::fromUtf8(ctl.readAllStandardOutput()).split('\n')) {
        const QStringList parts = line.split('\t');
        if (parts.size() == 2) {
            types.insert(parts.at(0), parts.at(1).trimmed());
        }
    }
    return types;
}

TEST_F(Replay, AQuorumUplinkQueueIsDeclaredAsSuchAndServes) {
    m_service.set("AMQP_UL_SETTINGS", "R_QUEUE_TYPE", "quorum");
    m_service.set_database(
        "db_driver_dummy",
        QJsonObject{{"devices", QJsonObject{{"77", QJsonObject{{"protocol", "proto7"}, {"hw_type", "X"}}}}}});
    ASSERT_TRUE(m_service.start()) << m_service.log().toStdString();
    EXPECT_EQ(queue_types().value(m_uplink_queue), "quorum");

    const QByteArray uplink =
        R"({"msg_type":"ul_app","modem_id":77,"protocol":"proto7","hw_type":"X","payload":"7804130a000000",)"
        R"("iterator":7,"station_id":5,"time_detected":1900000000})";
    ASSERT_TRUE(m_admin.publish("norvik.api", uplink_key("quorum"), uplink));
    EXPECT_TRUE(e2e::wait_until([&] {
        return m_service.log().contains(QRegularExpression(" accepted: [^\\n]*\"iterator\":7"));
    })) << m_service.log().right(3000).toStdString();
    EXPECT_TRUE(queue_holds(m_uplink_queue, 0));
}

TEST_F(Replay, AClassicQueueInTheWayOfAQuorumOneIsARefusalWithAHintNotACrash) {
    ASSERT_TRUE(m_admin.declare_queue(m_uplink_queue, true)) << m_admin.error().toStdString();
    m_service.set("AMQP_UL_SETTINGS", "R_QUEUE_TYPE", "quorum");
    ASSERT_TRUE(m_service.launch());
    const QString refusal =
        "queue.declare of " + m_uplink_queue + " refused by the broker: 406 PRECONDITION_FAILED";
    ASSERT_TRUE(e2e::wait_until([&] { return m_service.log().contains(refusal); }, 20000))
        << m_service.log().toStdString();
    // Retried after 3 and 6 s without saying it all again.
    e2e::wait_until([] { return false; }, 10000);
    const QString log = m_service.log();
    EXPECT_TRUE(m_service.running());
    EXPECT_EQ(log.count(refusal), 1) << log.toStdString();
    EXPECT_TRUE(log.contains("amqp: connection to ")) << log.toStdString();
    EXPECT_TRUE(log.contains("(the queue exists with other properties or arguments")) << log.toStdString();
    EXPECT_EQ(queue_types().value(m_uplink_queue), "classic");
}

}  // namespace
