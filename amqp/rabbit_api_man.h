#pragma once

#include <QJsonDocument>
#include <QJsonObject>
#include <QObject>
#include <QString>
#include <cstdint>
#include <functional>
#include <memory>

#include "amqp/api_message.h"
#include "app/config.h"
#include "app/logger.h"
#include "commands/ICommandHandler.h"

class rabbit_receiver;
class rabbit_publisher_impl;
class handling_gate;
namespace amqp {
class connection;
}  // namespace amqp

// The service's request/response endpoint: sends commands and matches their responses,
// and answers commands addressed to this service through the handler factory.
class rabbit_api_man : public QObject {
    Q_OBJECT
public:
    static constexpr int default_timeout_ms = 1800000;

    rabbit_api_man(logger& log, const rabbit_api_config& cfg, command_factory factory,
                   QObject* parent = nullptr, int timeout_ms = default_timeout_ms);
    ~rabbit_api_man() override;
    Q_DISABLE_COPY(rabbit_api_man)

    // Runs a command's execution (or a response's handler) as one unit of work: its
    // writes are committed when it returns, and it throws when they cannot be.
    using unit_runner = std::function<void(const std::function<void()>& work)>;

    // A delivery that arrives while the gate is busy waits until it is free. Null: none.
    void set_gate(handling_gate* gate);
    // Without a runner the work runs as it is.
    void set_unit_runner(unit_runner runner);
    // Decides whether a command may run for its sender; a command it refuses is answered
    // {"status": "forbidden"}, acknowledged and logged once. Without a check all may run.
    using access_check = std::function<bool(const api_message& command)>;
    void set_access_check(access_check check);

    // Told of every command served: its name, how it ended ("ok", "error", "forbidden",
    // "unknown" for a name without a handler, "repeated" for one not run again) and the
    // seconds it took.
    using command_observer = std::function<void(const QString& name, const char* outcome, double seconds)>;
    void set_command_observer(command_observer observer);
    // The broker connections of the command queue's consumer and of the command publisher.
    amqp::connection& receiver_transport() const;
    amqp::connection& publisher_transport() const;

    // The routing key this service puts into "sender".
    QString reply_key() const;
    const rabbit_api_config& config() const;
    int pending_count() const;

public Q_SLOTS:
    void listen(QJsonObject json, uint64_t message_tag);
    virtual void send_cmd(QString type, QJsonObject data, QString routingKey,
                          std::function<bool(QJsonDocument)> resultHandler,
                          std::function<void(QString)> errorHandler, int sharded = 0);
    virtual void send_cmd_forward(QString type, QJsonObject data, QString routeKey);

private:
    void serve(const QJsonObject& json, uint64_t message_tag, bool redelivered, const QString& user_id);

    struct impl;
    std::unique_ptr<impl> m_impl;
};
