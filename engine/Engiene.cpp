#include "engine/Engiene.h"

#include <QElapsedTimer>
#include <QJsonDocument>
#include <QTextStream>
#include <optional>

#include "engine/debug_timing.h"
#include "engine/dl_sending.h"
#include "engine/publication.h"
#include "interfaces/IDurableCommits.h"
#include "model/json.h"

namespace {
QString compact(const QJsonObject& object) {
    return QString::fromUtf8(QJsonDocument(object).toJson(QJsonDocument::Compact));
}

bool is_dl_report(const QString& type) {
    return type == "dl_queued" || type == "dl_inprocess" || type == "dl_success" || type == "dl_fault";
}

// The engine's outbox, counting each downlink it sends by who asked for it.
class counted_sender : public command_sender {
public:
    counted_sender(outbox& out, metrics::counter& sent) : m_out(out), m_sent(sent) {}
    void send_command(const QString& type, const QJsonObject& data, const QString& routing_key,
                      int sharded) override {
        m_out.send_counted(type, data, routing_key, sharded, &m_sent);
    }
    QString api_key() const override { return m_out.api_key(); }

private:
    outbox& m_out;
    metrics::counter& m_sent;
};
}  // namespace

Engiene::Engiene(DriverBuilder builder, EngineConfig config,
                 std::shared_ptr<interfaces::IMessagesDatabase> messages,
                 std::shared_ptr<interfaces::IEAVDatabase> eav,
                 std::shared_ptr<interfaces::IDeviceClientsDatabase> clients,
                 std::shared_ptr<interfaces::IDriverState> state, std::unique_ptr<rabbit_receiver> receiver,
                 std::unique_ptr<rabbit_publisher<rabbit_publisher_clients_config>> publisher,
                 std::unique_ptr<rabbit_api_man> api, logger& log, QObject* parent)
    : Engiene(std::move(builder), std::move(config), std::move(messages), std::move(eav), std::move(clients),
              std::move(state), engine_outputs{},
              std::make_unique<amqp_endpoints>(std::move(receiver), std::move(publisher), std::move(api)),
              log, parent) {}

Engiene::Engiene(DriverBuilder builder, EngineConfig config,
                 std::shared_ptr<interfaces::IMessagesDatabase> messages,
                 std::shared_ptr<interfaces::IEAVDatabase> eav,
                 std::shared_ptr<interfaces::IDeviceClientsDatabase> clients,
                 std::shared_ptr<interfaces::IDriverState> state, engine_outputs outputs, logger& log,
                 QObject* parent)
    : Engiene(std::move(builder), std::move(config), std::move(messages), std::move(eav), std::move(clients),
              std::move(state), outputs, nullptr, log, parent) {}

Engiene::Engiene(DriverBuilder builder, EngineConfig config,
                 std::shared_ptr<interfaces::IMessagesDatabase> messages,
                 std::shared_ptr<interfaces::IEAVDatabase> eav,
                 std::shared_ptr<interfaces::IDeviceClientsDatabase> clients,
                 std::shared_ptr<interfaces::IDriverState> state, engine_outputs outputs,
                 std::unique_ptr<amqp_endpoints> endpoints, logger& log, QObject* parent)
    : QObject(parent),
      m_builder(std::move(builder)),
      m_config(std::move(config)),
      m_messages(std::move(messages)),
      m_eav(std::move(eav)),
      m_clients(std::move(clients)),
      m_state(std::move(state)),
      m_endpoints(std::move(endpoints)),
      m_outputs(m_endpoints ? m_endpoints->outputs() : outputs),
      m_receiver(m_outputs.deliveries),
      m_log(log),
      m_outbox(std::make_unique<outbox>(*m_outputs.publications, *m_outputs.commands)) {
    m_driver = m_builder.build(
        m_messages, m_eav,
        [this](const model::dl_message& message) {
            return sendDriverBuilt(message, service_metrics::dl_source::driver);
        },
        static_cast<int>(m_config.ul_dl_ttl), m_config.position);
    m_acceptance = std::make_shared<const driver_acceptance>(*m_driver);
    m_batch.add_store(m_messages ? m_messages->write_batch() : nullptr);
    m_batch.add_store(m_eav ? m_eav->write_batch() : nullptr);
    m_batch.add_store(m_state ? m_state->write_batch() : nullptr);
    m_batch.add_store(m_clients ? m_clients->write_batch() : nullptr);
    m_store_watch = std::make_unique<store_watch>(m_messages ? m_messages->store_link() : nullptr, m_log);
    connect(m_store_watch.get(), &store_watch::returned, this, &Engiene::resumeAfterStore);
    m_release.set_source(m_batch.durable_commits());
    if (auto* durable = m_batch.durable_commits()) {
        durable->on_durable([this] { releaseDurable(); },
                            [this](const QString& why) { durabilityLost(why); });
    }
    if (m_endpoints) {
        connect(&m_endpoints->receiver(), &rabbit_receiver::data_received, this, &Engiene::onUlReceived);
        attachCommandClient(m_endpoints->api());
    }
    m_burst = burst_policy(m_receiver ? m_receiver->prefetch() : 2);
    m_end_of_turn.setSingleShot(true);
    m_end_of_turn.setInterval(0);
    connect(&m_end_of_turn, &QTimer::timeout, this, &Engiene::flushDeliveries);
    connect(&m_controller_timer, &QTimer::timeout, this, &Engiene::onControllerTick);
    m_controller_timer.setSingleShot(false);
    m_controller_timer.start(static_cast<int>(m_config.controller_period));
    m_batch.set_metrics(m_metrics.get());
    watchLinks();
    connect(&m_metrics_timer, &QTimer::timeout, this, &Engiene::onMetricsTick);
    m_metrics_timer.start(1000);

    QString address;
    QTextStream(&address) << static_cast<const void*>(this);
    log_line(m_log, Info) << m_log.log_name() << ": "
                          << "Constructed Engine instatnce " << address;
}

Engiene::~Engiene() {
    burstEvent(burst_policy::event::exclusive_work);
    releaseAll();
    if (auto* durable = m_batch.durable_commits()) {
        durable->on_durable(nullptr, nullptr);
    }
    if (m_api) {
        m_api->set_unit_runner(nullptr);
        m_api->set_gate(nullptr);
    }
}

void Engiene::attachCommandClient(rabbit_api_man& api) {
    m_api = &api;
    m_api->set_gate(&m_gate);
    // A command's reply leaves after the runner returns: its writes, and everything
    // committed before them, are durable by then.
    m_api->set_unit_runner([this](const std::function<void()>& work) {
        runAlone(work);
        releaseAll();
    });
}

// The one place where a delivery's outcome is decided. Heartbeats are processed in full
// and still rejected; messages of other instances or drivers, and unknown types, are
// rejected without a line.
Engiene::handling_result Engiene::handle(const QJsonObject& message, quint64 deliveryTag, bool redelivered) {
    using type = service_metrics::uplink_type;
    using verdict = service_metrics::uplink_outcome;
    m_handling_tag = deliveryTag;
    m_handling_redelivered = redelivered;
    m_found_stored = false;
    model::ul_message parsed;
    const QString msg_type = message.value("msg_type").toString();
    const type kind = typeOf(message);
    const handling_result acknowledged{outcome::acknowledge, {}, kind, verdict::acked};
    const handling_result not_mine{outcome::reject, {}, kind, verdict::rejected_not_mine};
    try {
        if (kind == type::ul_app) {
            if (!processUlApp(message, parsed)) {
                return not_mine;
            }
            if (m_found_stored) {
                return acknowledged;  // everything after storing ran the first time
            }
            afterAccepted(controller_event{parsed});
            return acknowledged;
        }
        if (kind == type::ul_hb) {
            if (!processHeartbeat(message, parsed)) {
                return not_mine;
            }
            return {outcome::reject, {}, kind, verdict::rejected_heartbeat};
        }
        if (kind == type::dl_report) {
            model::dl_event report;
            report.modem_id = message.value("modem_id").toInt(0);
            report.msg_type = msg_type;
            report.status_id = message.value("status_id").toString();
            if (!processDlEvent(report)) {
                return not_mine;
            }
            afterAccepted(controller_event{report});
            return acknowledged;
        }
        return {outcome::reject, {}, kind, verdict::rejected_bad};
    } catch (const interfaces::store_unavailable& e) {
        return {outcome::store_away, QString::fromUtf8(e.what()), kind, verdict::requeued};
    } catch (...) {
        return {outcome::reject_and_undo,
                failureLine(caught_failure::current(), deliveryTag, message, &parsed), kind,
                verdict::rejected_error};
    }
}

service_metrics::uplink_type Engiene::typeOf(const QJsonObject& message) {
    using type = service_metrics::uplink_type;
    const QString msg_type = message.value("msg_type").toString();
    return msg_type == "ul_app"     ? type::ul_app
           : msg_type == "ul_hb"    ? type::ul_hb
           : is_dl_report(msg_type) ? type::dl_report
                                    : type::unknown;
}

void Engiene::afterAccepted(const controller_event& event) {
    afterStored("controller", [&] {
        QElapsedTimer timer;
        timer.start();
        if (m_driver->controller(event)) {
            debug_timing::report("Controller executed in %1ms", timer);
        }
    });
    afterStored("DL queues", [&] {
        QElapsedTimer timer;
        timer.start();
        if (processDlQueues(event)) {
            debug_timing::report("DL queues executed in %1ms", timer);
        }
    });
}

void Engiene::afterStored(const char* step, const std::function<void()>& work) {
    const unit u = beginUnit();
    std::optional<caught_failure> failure;
    try {
        work();
    } catch (const interfaces::store_unavailable&) {
        // Not this step's fault: the whole delivery goes back to its queue.
        throw;
    } catch (...) {
        failure = caught_failure::current();
    }
    if (!endUnit(u, !failure)) {
        throw std::runtime_error("the store lost the transaction of the burst");
    }
    if (failure) {
        log_line(m_log, Error) << "instance: " << QString::number(m_config.position)
                               << " message tag: " << static_cast<uint64_t>(m_handling_tag) << " step \""
                               << step << "\" failed after the message was stored, its own writes undone: "
                               << failure->message();
    }
}

void Engiene::accept(const QJsonObject& message, quint64 deliveryTag) {
    m_receiver->ack_message(deliveryTag);
    // The line holds the whole message: not even built when the level leaves it out.
    if (m_log.level() < Info) {
        return;
    }
    log_line(m_log, Info) << "instance: " << QString::number(m_config.position)
                          << " message tag: " << static_cast<uint64_t>(deliveryTag)
                          << " accepted: " << compact(message);
}

// The Error line of a delivery whose handling threw; only a standard exception shows the
// parsed record.
QString Engiene::failureLine(const caught_failure& failure, quint64 deliveryTag, const QJsonObject& message,
                             const model::ul_message* parsed) {
    const QString tag = QString::number(deliveryTag);
    const QString line = "onUlReceived throw catch. ";
    switch (failure.thrown) {
        case caught_failure::kind::standard:
            return line + "Std::exception: " + failure.text + " Message_tag: " + tag +
                   " Message: " + compact(message) +
                   (parsed ? " Parsed message: " + compact(model::to_json(*parsed)) : QString());
        case caught_failure::kind::text:
            return line + "QString: " + failure.text + " Message_tag: " + tag +
                   " Message: " + compact(message);
        case caught_failure::kind::other:
            break;
    }
    return line + "Message_tag: " + tag + " message: " + compact(message);
}

bool Engiene::isMine(int modem_id, const QString& protocol, const QString& hw_type) const {
    return ownership::instance_matches(modem_id, m_config.instances, m_config.position) &&
           m_acceptance->accepts(protocol, hw_type);
}

void Engiene::onControllerTick() {
    if (store_away()) {
        return;  // the driver's work needs the store; the next tick after its return runs
    }
    if (waitAtGateOnce(m_tick_waiting, &Engiene::onControllerTick)) {
        return;
    }
    handling_gate::entry in(&m_gate);
    try {
        runAlone([this] { m_driver->controller(controller_event{model::ul_message{}}); });
    } catch (const interfaces::store_unavailable&) {
        // Logged once for the whole outage; the ticks after the store's return run.
    } catch (...) {
        log_line(m_log, Error) << "instance: " << QString::number(m_config.position)
                               << "controller by timer exception";
    }
}

QJsonObject Engiene::sendDlmessageRAW(const model::dl_message& message,
                                      std::shared_ptr<interfaces::IMessagesDatabase> messages,
                                      rabbit_api_man* api, QString payloadOverride) {
    api_command_sender sender(*api);
    return sendDlmessageRAW(message, std::move(messages), sender, std::move(payloadOverride));
}

QJsonObject Engiene::sendDlmessageRAW(const model::dl_message& message,
                                      std::shared_ptr<interfaces::IMessagesDatabase> messages,
                                      command_sender& sender, QString payloadOverride) {
    return dl_sending::send_raw(message, *messages, sender, payloadOverride);
}

QJsonObject Engiene::sendRaw(const model::dl_message& message, const QString& payloadOverride,
                             service_metrics::dl_source source) {
    counted_sender sender(*m_outbox, m_metrics->downlinks_sent(source));
    return dl_sending::send_raw(message, *m_messages, sender, payloadOverride);
}

QJsonObject Engiene::sendDriverBuilt(const model::dl_message& message, service_metrics::dl_source source) {
    counted_sender sender(*m_outbox, m_metrics->downlinks_sent(source));
    return dl_sending::send_driver_built(message, *m_driver, *m_messages, *m_clients, sender,
                                         m_config.ul_dl_ttl);
}

QJsonObject Engiene::sendDlmessage(const model::dl_message& message) {
    return sendDriverBuilt(message, service_metrics::dl_source::api);
}

void Engiene::publish_record(const model::ul_message& stored, const model::eav_record& record,
                             const QString& client, int index, bool wrap) {
    publication::publish_record(stored, record, client, index, *m_outbox, wrap);
}

void Engiene::publish_roll(const model::ul_message& message, const QString& client, int index, bool wrap) {
    publication::publish_message(message, client, index, *m_outbox, wrap);
}

void Engiene::send_command(const QString& type, const QJsonObject& data, const QString& routing_key) {
    m_outbox->send_command(type, data, routing_key, 0);
}
