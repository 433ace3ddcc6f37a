// The command client against the test broker: serving commands through a handler
// factory, sending commands and matching their responses, time-outs.
#include <gtest/gtest.h>

#include <QJsonDocument>
#include <QRegularExpression>
#include <stdexcept>

#include "amqp/rabbit_api_man.h"
#include "amqp/rabbit_publisher.h"
#include "amqp/rabbit_receiver.h"
#include "amqp_test_support.h"

using namespace amqp_test;

namespace {

// "echo" answers with its request's data plus a marker; "boom" throws; anything else is
// unknown, as the real factory reports it.
class echo_handler : public ICommandHandler {
public:
    explicit echo_handler(int& runs) : m_runs(runs) {}
    QJsonObject execute(const api_message& message) override {
        ++m_runs;
        QJsonObject out = message.data.object();
        out.insert("echoed", true);
        return out;
    }

private:
    int& m_runs;
};

// Runs, then has the broker close every connection before the command can be settled,
// as a handler that outlasts its link would.
class unsettled_handler : public ICommandHandler {
public:
    explicit unsettled_handler(int& runs) : m_runs(runs) {}
    QJsonObject execute(const api_message&) override {
        ++m_runs;
        broker_script({"ctl", "close_all_connections", "-p", "/api", "test"});
        return QJsonObject{{"ran", m_runs}};
    }

private:
    int& m_runs;
};

struct fake_factory {
    int runs = 0;
    int unsettled_runs = 0;
    command_factory make() {
        return [this](const QString& name) -> std::shared_ptr<ICommandHandler> {
            if (name == "echo") {
                return std::make_shared<echo_handler>(runs);
            }
            if (name == "unsettled") {
                return std::make_shared<unsettled_handler>(unsettled_runs);
            }
            if (name == "boom") {
                throw std::runtime_error("handler failed");
            }
            throw std::runtime_error((name + " does not exist").toStdString());
        };
    }
};

rabbit_api_config api_cfg(const QString& key) {
    rabbit_api_config cfg;
    cfg.url = broker_url();
    cfg.queue = unique("cmd.queue");
    cfg.vhost = "/api";
    cfg.bindings = {{exchange(), key}};
    cfg.exchange_cmd = exchange();
    cfg.arguments.insert("x-expires", 60000);
    return cfg;
}

// A peer on the broker: listens on its own key and publishes raw envelopes.
struct peer {
    peer(logger& log, const QString& listen_key)
        : key(listen_key),
          receiver(log, receiver_cfg(unique("peer"), {listen_key}), nullptr, true, false),
          publisher(log, publisher_cfg()) {
        QObject::connect(&receiver, &rabbit_receiver::raw_data_received,
                         [this](QByteArray payload, uint64_t tag) {
                             got.push_back(payload);
                             receiver.ack_message(tag, false);
                         });
    }
    void send(const QJsonObject& envelope, const QString& to) {
        publisher.publish_string(QJsonDocument(envelope).toJson(QJsonDocument::Compact), to.toLatin1(),
                                 "text/plain");
    }
    QJsonObject json(size_t i) const { return QJsonDocument::fromJson(got.at(i)).object(); }

    QString key;
    rabbit_receiver receiver;
    rabbit_publisher_impl publisher;
    std::vector<QByteArray> got;
};

bool ready(test_log& log, int consumers) {
    return log.count("Rabbit_man_ul: Queue bound") >= consumers;
}

const QString null_id = "{00000000-0000-0000-0000-000000000000}";

}  // namespace

TEST(rabbit_api_man, serves_commands_through_the_factory) {
    test_log log;
    fake_factory factory;
    const QString service_key = unique("cmd.in.service");
    rabbit_api_man service(log.get(), api_cfg(service_key), factory.make());
    peer client(log.get(), unique("cmd.in.client"));
    ASSERT_TRUE(wait_for([&] { return ready(log, 2) && client.publisher.is_connected(); }));
    EXPECT_EQ(service.reply_key(), service_key);

    // A round trip: the response is compact JSON to the sender's key, with the request's id.
    const QString id = QUuid::createUuid().toString();
    client.send(
        {{"msg_type", "echo"}, {"sender", client.key}, {"cmd_id", id}, {"data", QJsonObject{{"v", 7}}}},
        service_key);
    ASSERT_TRUE(wait_for([&] { return client.got.size() == 1; }));
    const QJsonObject expected{
        {"msg_type", "response"}, {"cmd_id", id}, {"data", QJsonObject{{"v", 7}, {"echoed", true}}}};
    EXPECT_EQ(client.got[0], QJsonDocument(expected).toJson(QJsonDocument::Compact));

    // An unknown command and a failing handler: logged, rejected, no response. Prefetch
    // is 1, so the command after them is served only if both were settled.
    client.send({{"msg_type", "nope"}, {"sender", client.key}, {"cmd_id", id}, {"data", QJsonObject{}}},
                service_key);
    client.send({{"msg_type", "boom"}, {"sender", client.key}, {"cmd_id", id}, {"data", QJsonObject{}}},
                service_key);
    // An empty sender: executed, acknowledged, nothing published.
    client.send({{"msg_type", "echo"}, {"sender", ""}, {"cmd_id", id}, {"data", QJsonObject{}}}, service_key);
    // A cmd_id that is no UUID is answered with the null UUID.
    client.send({{"msg_type", "echo"}, {"sender", client.key}, {"cmd_id", "abc"}, {"data", QJsonObject{}}},
                service_key);
    ASSERT_TRUE(wait_for([&] { return client.got.size() == 2; }));
    EXPECT_EQ(client.json(1).value("cmd_id").toString(), null_id);
    EXPECT_EQ(factory.runs, 3);
    EXPECT_EQ(log.count("Error test: error while parse income message :nope does not exist"), 1);
    EXPECT_EQ(log.count("Error test: error while parse income message :handler failed"), 1);
    spin(500);
    EXPECT_EQ(client.got.size(), 2u);
}

// A command that costs its connection each time it runs would otherwise come back and run
// for ever: after two runs whose settlement was lost it is rejected without running.
TEST(rabbit_api_man, a_command_whose_settlement_is_lost_twice_is_not_run_a_third_time) {
    test_log log;
    fake_factory factory;
    const QString service_key = unique("cmd.in.poison");
    rabbit_api_man service(log.get(), api_cfg(service_key), factory.make());
    peer client(log.get(), unique("cmd.in.client"));
    ASSERT_TRUE(wait_for([&] { return ready(log, 2) && client.publisher.is_connected(); }));

    const QString id = QUuid::createUuid().toString();
    client.send({{"msg_type", "unsettled"}, {"sender", ""}, {"cmd_id", id}, {"data", QJsonObject{}}},
                service_key);
    ASSERT_TRUE(wait_for([&] { return log.count("rejected without running it again") == 1; }, 60000));
    EXPECT_EQ(factory.unsettled_runs, 2);
    EXPECT_TRUE(log.text().contains("command unsettled " + id + " delivered again after 2 runs"));

    // Other commands are served as usual, also with their ids seen once.
    ASSERT_TRUE(wait_for([&] { return ready(log, 6) && client.publisher.is_connected(); }, 30000));
    client.send({{"msg_type", "echo"}, {"sender", client.key}, {"cmd_id", id + "x"}, {"data", QJsonObject{}}},
                service_key);
    ASSERT_TRUE(wait_for([&] { return client.got.size() == 1; }, 30000));
    spin(1000);
    EXPECT_EQ(factory.unsettled_runs, 2);
}

TEST(rabbit_api_man, matches_responses_to_pending_commands) {
    test_log log;
    fake_factory factory;
    const QString own_key = unique("cmd.in.self");
    rabbit_api_man man(log.get(), api_cfg(own_key), factory.make());
    peer server(log.get(), unique("cmd.in.server"));
    ASSERT_TRUE(wait_for([&] { return ready(log, 2); }));

    int calls = 0;
    int errors = 0;
    std::vector<QJsonDocument> seen;
    man.send_cmd(
        "do_it", QJsonObject{{"arg", 1}}, server.key,
        [&](QJsonDocument data) {
            seen.push_back(data);
            return ++calls == 3;
        },
        [&](QString) { ++errors; }, 3);
    man.send_cmd(
        "plain", QJsonObject{}, server.key, [](QJsonDocument) { return true; }, [](QString) {});
    EXPECT_EQ(man.pending_count(), 2);
    // The publication is queued: nothing has gone out while the caller still runs.
    EXPECT_EQ(log.count("Publishing :"), 0);

    ASSERT_TRUE(wait_for([&] { return server.got.size() == 2; }));
    const QJsonObject request = server.json(0);
    EXPECT_EQ(request.value("msg_type").toString(), "do_it");
    EXPECT_EQ(request.value("sender").toString(), own_key);
    EXPECT_EQ(request.value("data").toObject(), (QJsonObject{{"arg", 1}}));
    EXPECT_EQ(request.value("sharded").toInt(), 3);
    EXPECT_FALSE(server.json(1).contains("sharded"));
    const QString id = request.value("cmd_id").toString();
    EXPECT_TRUE(QRegularExpression("^\\{[0-9a-f]{8}-[0-9a-f]{4}-4[0-9a-f]{3}-[0-9a-f]{4}-[0-9a-f]{12}\\}$")
                    .match(id)
                    .hasMatch())
        << id.toStdString();
    EXPECT_FALSE(server.got[0].contains(' '));

    // A response nobody waits for is acknowledged and changes nothing.
    server.send(
        {{"msg_type", "response"}, {"cmd_id", QUuid::createUuid().toString()}, {"data", QJsonObject{}}},
        own_key);
    // The handler says "not finished" twice, then "finished".
    for (int i = 0; i < 3; ++i) {
        server.send({{"msg_type", "response"}, {"cmd_id", id}, {"data", QJsonObject{{"part", i}}}}, own_key);
    }
    ASSERT_TRUE(wait_for([&] { return calls == 3; }));
    EXPECT_EQ(seen[2].object().value("part").toInt(), 2);
    EXPECT_EQ(man.pending_count(), 1);
    EXPECT_EQ(log.count("Rabbit executed :" + id + " "), 1);

    // Once finished the command is forgotten: a late duplicate is only acknowledged.
    server.send({{"msg_type", "response"}, {"cmd_id", id}, {"data", QJsonObject{}}}, own_key);
    server.send(
        {{"msg_type", "response"}, {"cmd_id", server.json(1).value("cmd_id")}, {"data", QJsonObject{}}},
        own_key);
    ASSERT_TRUE(wait_for([&] { return man.pending_count() == 0; }));
    EXPECT_EQ(calls, 3);
    EXPECT_EQ(errors, 0);
}

TEST(rabbit_api_man, forward_publishes_at_once_and_untracked) {
    test_log log;
    fake_factory factory;
    rabbit_api_man man(log.get(), api_cfg(unique("cmd.in.fwd")), factory.make());
    peer server(log.get(), unique("cmd.in.target"));
    ASSERT_TRUE(wait_for([&] { return ready(log, 2); }));
    man.send_cmd_forward("dl", QJsonObject{{"x", 1}}, server.key);
    EXPECT_EQ(log.count("Publishing :"), 1);
    EXPECT_EQ(man.pending_count(), 0);
    ASSERT_TRUE(wait_for([&] { return server.got.size() == 1; }));
    EXPECT_EQ(server.json(0).value("msg_type").toString(), "dl");
    EXPECT_EQ(server.json(0).value("sender").toString(), man.reply_key());
    EXPECT_FALSE(server.json(0).contains("sharded"));
}

TEST(rabbit_api_man, a_command_without_response_times_out_once) {
    test_log log;
    fake_factory factory;
    rabbit_api_man man(log.get(), api_cfg(unique("cmd.in.late")), factory.make(), nullptr, 1500);
    ASSERT_TRUE(wait_for([&] { return ready(log, 1); }));
    QStringList errors;
    int results = 0;
    const QString nobody = unique("cmd.in.nobody");
    man.send_cmd(
        "lost", QJsonObject{}, nobody,
        [&](QJsonDocument) {
            ++results;
            return true;
        },
        [&](QString text) { errors << text; });
    ASSERT_TRUE(wait_for([&] { return errors.size() == 1; }, 10000));
    EXPECT_EQ(errors.first(), "rabbit command execution timeout");
    EXPECT_EQ(man.pending_count(), 0);
    EXPECT_EQ(log.count("Timeout :{"), 1);
    spin(2000);
    EXPECT_EQ(errors.size(), 1);
    EXPECT_EQ(results, 0);
}
