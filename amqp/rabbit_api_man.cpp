#include "amqp/rabbit_api_man.h"

#include <QJsonDocument>
#include <QMetaObject>
#include <QTimer>
#include <QUuid>
#include <chrono>
#include <deque>
#include <exception>
#include <map>

#include "amqp/command_outcome.h"
#include "amqp/handling_gate.h"
#include "amqp/rabbit_publisher.h"
#include "amqp/rabbit_receiver.h"
#include "interfaces/IStoreLink.h"

namespace {

rabbit_receiver_cfg receiver_config(const rabbit_api_config& cfg) {
    rabbit_receiver_cfg out;
    out.url = cfg.url;
    out.queue = cfg.queue;
    out.vhost = cfg.vhost;
    out.bindings = cfg.bindings;
    out.queue_options = cfg.queue_options;
    out.prefetch = cfg.prefetch;
    out.arguments = cfg.arguments;
    out.heartbeat = cfg.heartbeat;
    out.ca_cert = cfg.ca_cert;
    return out;
}

rabbit_publisher_config publisher_config(const rabbit_api_config& cfg) {
    rabbit_publisher_config out;
    out.url = cfg.url;
    out.exchange = cfg.exchange_cmd;
    out.vhost = cfg.vhost;
    out.heartbeat = cfg.heartbeat;
    out.ca_cert = cfg.ca_cert;
    return out;
}

QByteArray compact(const QJsonObject& object) {
    return QJsonDocument(object).toJson(QJsonDocument::Compact);
}

const QString response_type = "response";
const QString mime_type = "text/plain";

}  // namespace

struct rabbit_api_man::impl {
    // A command sent with send_cmd and not finished yet. The entry owns its timer.
    struct pending {
        std::function<bool(QJsonDocument)> on_result;
        std::function<void(QString)> on_error;
        std::unique_ptr<QTimer> timer;
    };

    impl(logger& log, const rabbit_api_config& cfg, command_factory factory, int timeout_ms)
        : log(log), cfg(cfg), factory(std::move(factory)), timeout_ms(timeout_ms) {}

    QJsonObject envelope(const QString& type, const QJsonObject& data, QUuid* id) const {
        *id = QUuid::createUuid();
        QJsonObject out;
        out.insert("msg_type", type);
        out.insert("sender", reply_key());
        out.insert("cmd_id", id->toString());
        out.insert("data", data);
        return out;
    }

    QString reply_key() const { return cfg.bindings.isEmpty() ? QString() : cfg.bindings.first().second; }

    void run_unit(const std::function<void()>& work) const {
        if (runner) {
            runner(work);
        } else {
            work();
        }
    }
    void timed_out(const QUuid& id);
    void handle_response(const api_message& message, uint64_t tag);
    void handle_command(const api_message& message, uint64_t tag, bool redelivered);
    // Runs the command if it may run; `handler` keeps the handler until its reply is out.
    command_outcome run_command(const api_message& message, bool redelivered,
                                std::shared_ptr<ICommandHandler>& handler);
    // Logs, replies and settles as the outcome says.
    void conclude(const api_message& message, uint64_t tag, const command_outcome& outcome);
    // Counts the runs of a command; false when it has run twice already.
    bool may_run(const api_message& message, bool redelivered);
    void reply(const api_message& message, const QJsonObject& result);
    void served(const QString& name, const char* outcome, std::chrono::steady_clock::time_point start) const {
        if (observe) {
            const std::chrono::duration<double> took = std::chrono::steady_clock::now() - start;
            observe(name, outcome, took.count());
        }
    }

    logger& log;
    rabbit_api_config cfg;
    command_factory factory;
    int timeout_ms = default_timeout_ms;
    std::map<QUuid, pending> commands;  // ordered by UUID comparison
    rabbit_receiver* receiver = nullptr;
    rabbit_publisher_impl* publisher = nullptr;
    handling_gate* gate = nullptr;
    unit_runner runner;
    access_check may_access;
    command_observer observe;
    // Runs per command id, of the most recent commands: a command whose settlement was
    // lost twice (each time with its connection) is not run a third time.
    std::map<QUuid, int> runs;
    std::deque<QUuid> run_order;
};

namespace {
constexpr std::size_t remembered_commands = 10000;
constexpr int most_runs = 2;
}  // namespace

rabbit_api_man::rabbit_api_man(logger& log, const rabbit_api_config& cfg, command_factory factory,
                               QObject* parent, int timeout_ms)
    : QObject(parent), m_impl(std::make_unique<impl>(log, cfg, std::move(factory), timeout_ms)) {
    m_impl->receiver = new rabbit_receiver(log, receiver_config(cfg), this, false, false);
    m_impl->publisher = new rabbit_publisher<rabbit_publisher_config>(log, publisher_config(cfg), this);
    connect(m_impl->receiver, &rabbit_receiver::data_received, this, &rabbit_api_man::listen);
}

rabbit_api_man::~rabbit_api_man() {
    // Timers of pending commands go first; then the endpoints, while m_impl still exists.
    m_impl->commands.clear();
    delete m_impl->receiver;
    delete m_impl->publisher;
}

void rabbit_api_man::set_gate(handling_gate* gate) {
    m_impl->gate = gate;
}

void rabbit_api_man::set_unit_runner(unit_runner runner) {
    m_impl->runner = std::move(runner);
}

void rabbit_api_man::set_access_check(access_check check) {
    m_impl->may_access = std::move(check);
}

void rabbit_api_man::set_command_observer(command_observer observer) {
    m_impl->observe = std::move(observer);
}

amqp::connection& rabbit_api_man::receiver_transport() const {
    return m_impl->receiver->transport();
}

amqp::connection& rabbit_api_man::publisher_transport() const {
    return m_impl->publisher->transport();
}

QString rabbit_api_man::reply_key() const {
    return m_impl->reply_key();
}

const rabbit_api_config& rabbit_api_man::config() const {
    return m_impl->cfg;
}

int rabbit_api_man::pending_count() const {
    return int(m_impl->commands.size());
}

void rabbit_api_man::send_cmd(QString type, QJsonObject data, QString routingKey,
                              std::function<bool(QJsonDocument)> resultHandler,
                              std::function<void(QString)> errorHandler, int sharded) {
    auto& d = *m_impl;
    QUuid id;
    QJsonObject message = d.envelope(type, data, &id);
    if (sharded != 0) {
        message.insert("sharded", sharded);
    }

    impl::pending entry;
    entry.on_result = std::move(resultHandler);
    entry.on_error = std::move(errorHandler);
    entry.timer = std::make_unique<QTimer>();
    entry.timer->setSingleShot(true);
    entry.timer->setInterval(d.timeout_ms);
    connect(entry.timer.get(), &QTimer::timeout, this, [this, id] { m_impl->timed_out(id); });
    entry.timer->start();
    d.commands.emplace(id, std::move(entry));

    // Published after the current slot returns, so sending is safe from inside any handler.
    const QByteArray payload = compact(message);
    const QByteArray key = routingKey.toLatin1();
    QMetaObject::invokeMethod(
        this, [this, payload, key] { m_impl->publisher->publish_string(payload, key, mime_type); },
        Qt::QueuedConnection);
}

void rabbit_api_man::send_cmd_forward(QString type, QJsonObject data, QString routeKey) {
    QUuid id;
    const QJsonObject message = m_impl->envelope(type, data, &id);
    m_impl->publisher->publish_string(compact(message), routeKey.toLatin1(), mime_type);
}

void rabbit_api_man::impl::timed_out(const QUuid& id) {
    auto it = commands.find(id);
    if (it == commands.end()) {
        return;
    }
    log_line(log, Debug) << "Timeout :" << id.toString();
    pending entry = std::move(it->second);
    commands.erase(it);
    // The timer is the sender of the signal being handled: delete it afterwards.
    entry.timer.release()->deleteLater();
    if (!entry.on_error) {
        log_line(log, Error) << "command " << id.toString() << " timed out and has no error handler";
        return;
    }
    entry.on_error("rabbit command execution timeout");
}

void rabbit_api_man::listen(QJsonObject json, uint64_t message_tag) {
    // Read now: the receiver tells of the delivery it has just signalled.
    serve(json, message_tag, m_impl->receiver->redelivered(message_tag),
          m_impl->receiver->user_id(message_tag));
}

void rabbit_api_man::serve(const QJsonObject& json, uint64_t message_tag, bool redelivered,
                           const QString& user_id) {
    auto& d = *m_impl;
    if (d.gate && d.gate->busy()) {
        d.gate->when_free(this, [this, json, message_tag, redelivered, user_id] {
            serve(json, message_tag, redelivered, user_id);
        });
        return;
    }
    handling_gate::entry in(d.gate);
    api_message message;
    try {
        message = api_message::from_json(json);
        message.user_id = user_id;
        if (message.msg_type == response_type) {
            d.handle_response(message, message_tag);
        } else {
            d.handle_command(message, message_tag, redelivered);
        }
    } catch (...) {
        // Whatever was thrown (a text, something else): the delivery is never left unsettled.
        d.conclude(message, message_tag, command_outcome::failed(caught_failure::current()));
    }
}

void rabbit_api_man::impl::handle_response(const api_message& message, uint64_t tag) {
    auto it = commands.find(message.cmd_id);
    if (it == commands.end()) {
        // Late, duplicate or someone else's: nothing waits for it.
        receiver->ack_message(tag, false);
        return;
    }
    bool finished = false;
    const auto on_result = it->second.on_result;
    run_unit([&] { finished = on_result(message.data); });
    if (!finished) {
        receiver->ack_message(tag, false);
        return;
    }
    // The handler may have sent or finished other commands: look the entry up again.
    it = commands.find(message.cmd_id);
    if (it != commands.end()) {
        QTimer& timer = *it->second.timer;
        const int elapsed = timer.interval() - std::max(0, timer.remainingTime());
        log_line(log, Debug) << "Rabbit executed :" << message.cmd_id.toString() << " "
                             << QString::number(elapsed) << " ms";
        timer.stop();
        commands.erase(it);
    }
    receiver->ack_message(tag, false);
}

bool rabbit_api_man::impl::may_run(const api_message& message, bool redelivered) {
    if (message.cmd_id.isNull()) {
        return true;
    }
    auto it = runs.find(message.cmd_id);
    if (it == runs.end()) {
        it = runs.emplace(message.cmd_id, 0).first;
        run_order.push_back(message.cmd_id);
        if (run_order.size() > remembered_commands) {
            runs.erase(run_order.front());
            run_order.pop_front();
        }
    }
    if (redelivered && it->second >= most_runs) {
        return false;
    }
    ++it->second;
    return true;
}

void rabbit_api_man::impl::reply(const api_message& message, const QJsonObject& result) {
    if (message.sender.isEmpty()) {
        return;
    }
    QJsonObject response;
    response.insert("msg_type", response_type);
    response.insert("cmd_id", message.cmd_id.toString());
    response.insert("data", result);
    publisher->publish_string(compact(response), message.sender.toLatin1(), mime_type);
}

void rabbit_api_man::impl::handle_command(const api_message& message, uint64_t tag, bool redelivered) {
    const auto start = std::chrono::steady_clock::now();
    std::shared_ptr<ICommandHandler> handler;
    const command_outcome outcome = run_command(message, redelivered, handler);
    conclude(message, tag, outcome);
    served(message.msg_type, outcome.name, start);
}

command_outcome rabbit_api_man::impl::run_command(const api_message& message, bool redelivered,
                                                  std::shared_ptr<ICommandHandler>& handler) {
    if (may_access && !may_access(message)) {
        return command_outcome::forbidden(message.msg_type, message.user_id, message.sender);
    }
    if (!may_run(message, redelivered)) {
        // Twice its connection was lost before it could be settled (a poison command that
        // outlasts the link): a third run would only do the same.
        return command_outcome::repeated(message.msg_type, message.cmd_id.toString(), most_runs);
    }
    try {
        handler = factory(message.msg_type);
        if (!handler) {
            throw std::runtime_error((message.msg_type + " has no handler").toStdString());
        }
    } catch (...) {
        return command_outcome::unknown(caught_failure::current());
    }
    // The reply and the acknowledgement go out only once the command's writes are stored.
    try {
        QJsonObject result;
        run_unit([&] { result = handler->execute(message); });
        return command_outcome::answered(result);
    } catch (const interfaces::store_unavailable& e) {
        return command_outcome::store_unavailable(message.msg_type, message.cmd_id.toString(),
                                                  QString::fromUtf8(e.what()));
    } catch (...) {
        return command_outcome::failed(caught_failure::current());
    }
}

void rabbit_api_man::impl::conclude(const api_message& message, uint64_t tag,
                                    const command_outcome& outcome) {
    if (outcome.log_level != Off) {
        log_line(log, outcome.log_level) << outcome.log_text;
    }
    if (outcome.replies) {
        reply(message, outcome.reply);
    }
    if (outcome.acknowledged) {
        receiver->ack_message(tag, false);
    } else {
        receiver->reject_message(tag);
    }
}
