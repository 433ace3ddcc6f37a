#pragma once

#include <QJsonObject>
#include <QObject>
#include <QTimer>
#include <functional>
#include <memory>

#include "amqp/handling_gate.h"
#include "amqp/rabbit_api_man.h"
#include "amqp/rabbit_publisher.h"
#include "amqp/rabbit_receiver.h"
#include "app/caught_failure.h"
#include "app/config.h"
#include "app/logger.h"
#include "engine/amqp_endpoints.h"
#include "engine/burst_policy.h"
#include "engine/delivery_batch.h"
#include "engine/driver_builder.h"
#include "engine/durable_release.h"
#include "engine/engine_services.h"
#include "engine/outbox.h"
#include "engine/output_sinks.h"
#include "engine/ownership.h"
#include "engine/store_watch.h"
#include "interfaces/factories.h"
#include "metrics/service_metrics.h"
#include "model/records.h"

// The central object: takes every consumed uplink, has the driver decode it, stores and
// publishes the results, runs the downlink queues and acknowledges or rejects.
//
// One message at a time: a delivery, a command or a timer tick that arrives while
// another is being handled (a publisher waiting for its link runs the event loop) waits
// at the gate until that one is finished. What handling sends out is held in the outbox
// until the writes it speaks of are committed and on the disk; deliveries are settled
// after that. The flow (settlement.cpp): handle() decides each delivery's outcome;
// burstEvent() alone decides when the burst's transaction is committed; release() alone
// lets out what durable commits hold, in commit order.
class Engiene : public QObject, public IEngineServices {
    Q_OBJECT
public:
    Engiene(DriverBuilder builder, EngineConfig config,
            std::shared_ptr<interfaces::IMessagesDatabase> messages,
            std::shared_ptr<interfaces::IEAVDatabase> eav,
            std::shared_ptr<interfaces::IDeviceClientsDatabase> clients,
            std::shared_ptr<interfaces::IDriverState> state, std::unique_ptr<rabbit_receiver> receiver,
            std::unique_ptr<rabbit_publisher<rabbit_publisher_clients_config>> publisher,
            std::unique_ptr<rabbit_api_man> api, logger& log, QObject* parent = nullptr);
    // The same over outputs of the caller's (which outlive the engine): deliveries are
    // handed to onUlReceived and flushDeliveries by the caller; no broker is involved.
    Engiene(DriverBuilder builder, EngineConfig config,
            std::shared_ptr<interfaces::IMessagesDatabase> messages,
            std::shared_ptr<interfaces::IEAVDatabase> eav,
            std::shared_ptr<interfaces::IDeviceClientsDatabase> clients,
            std::shared_ptr<interfaces::IDriverState> state, engine_outputs outputs, logger& log,
            QObject* parent = nullptr);
    ~Engiene() override;
    Q_DISABLE_COPY(Engiene)

    bool processUlApp(const QJsonObject& json, model::ul_message& stored);
    bool processHeartbeat(const QJsonObject& json, model::ul_message& stored);
    bool processDlEvent(const model::dl_event& event);
    void saveExploidObjects(const model::eav_list& records);
    // The downlink-queue step after an accepted message; true when it ran.
    bool processDlQueues(const controller_event& event);

    // Sends at once, outside any handling (the engine itself sends through its outbox).
    static QJsonObject sendDlmessageRAW(const model::dl_message& message,
                                        std::shared_ptr<interfaces::IMessagesDatabase> messages,
                                        rabbit_api_man* api, QString payloadOverride);
    static QJsonObject sendDlmessageRAW(const model::dl_message& message,
                                        std::shared_ptr<interfaces::IMessagesDatabase> messages,
                                        command_sender& sender, QString payloadOverride);

    // IEngineServices. Driver-built sending; the driver's DL-sending callback and the
    // queue's "typical" entries take the same road, each counted as its own source.
    QJsonObject sendDlmessage(const model::dl_message& message) override;
    void publish_record(const model::ul_message& stored, const model::eav_record& record,
                        const QString& client, int index, bool wrap) override;
    void publish_roll(const model::ul_message& message, const QString& client, int index, bool wrap) override;
    void send_command(const QString& type, const QJsonObject& data, const QString& routing_key) override;

    std::shared_ptr<interfaces::IDriver> driver() const { return m_driver; }
    // The driver's acceptance rule, for the command handlers' ownership checks.
    std::shared_ptr<const driver_acceptance> acceptance() const { return m_acceptance; }
    // The command client whose commands run as units of this engine; null without one.
    rabbit_api_man* api() const { return m_api; }
    // Has the command client run its commands one at a time with the engine's handling,
    // each as a unit of its own; detached again when the engine goes.
    void attachCommandClient(rabbit_api_man& api);
    const EngineConfig& config() const { return m_config; }
    const handling_gate& gate() const { return m_gate; }
    // What the service measures; the metrics endpoint reads it from another thread.
    std::shared_ptr<service_metrics> metrics() const { return m_metrics; }
    // Commits whose acknowledgements and publications wait for the store's disk.
    std::size_t outputs_waiting() const { return m_release.waiting(); }
    // Whether the store's server is away: uplinks wait in their queue meanwhile.
    bool store_away() const { return m_store_watch->away(); }

public Q_SLOTS:
    void onUlReceived(QJsonObject message, quint64 deliveryTag);
    // Ends the open burst: commits the store writes of the deliveries handled since the
    // last one; what they published and their settlements leave once the commit is
    // durable. Runs when the event loop turns after a delivery; callers that hand over
    // deliveries themselves may call it when those at hand are all handed over.
    void flushDeliveries();

private Q_SLOTS:
    void onControllerTick();
    // Figures the loop samples (pending commands) and a cheap store probe when idle.
    void onMetricsTick();

private:
    // How the handling of one delivery ended; decided in handle() alone.
    // store_away: the store's server went away; nothing of the delivery is kept and it
    // goes back to its queue.
    enum class outcome { acknowledge, reject, reject_and_undo, store_away };
    struct handling_result {
        outcome result = outcome::reject;
        QString failure;  // the Error line when the handling failed
        service_metrics::uplink_type type = service_metrics::uplink_type::unknown;
        service_metrics::uplink_outcome verdict = service_metrics::uplink_outcome::rejected_bad;
    };
    Engiene(DriverBuilder builder, EngineConfig config,
            std::shared_ptr<interfaces::IMessagesDatabase> messages,
            std::shared_ptr<interfaces::IEAVDatabase> eav,
            std::shared_ptr<interfaces::IDeviceClientsDatabase> clients,
            std::shared_ptr<interfaces::IDriverState> state, engine_outputs outputs,
            std::unique_ptr<amqp_endpoints> endpoints, logger& log, QObject* parent);
    // A unit of work: store writes and outward messages kept or undone together.
    struct unit {
        std::size_t outbox_mark = 0;
    };

    // Delivery flow (settlement.cpp).
    void receive(delivery_batch::delivery delivery);
    void handleDelivery(delivery_batch::delivery delivery);
    // Commits the open burst when the policy says `event` ends it.
    void burstEvent(burst_policy::event event);
    void commitAndSettle();
    void abandonBurst(delivery_batch::delivery delivery);
    void handleEachAlone(std::vector<delivery_batch::delivery> deliveries, const QString& why);
    void settle(const delivery_batch::delivery& delivery);
    // What the outbox holds and the settlement of `deliveries` go out once the store's
    // last commit is durable, after what earlier commits let out.
    void settleAfterCommit(std::vector<delivery_batch::delivery> deliveries);
    // The store made more commits durable: what waited for them goes out.
    void releaseDurable();
    // Lets out what the durable commits hold and has the outputs send it now.
    void release();
    // Waits until every commit is durable, then releases everything.
    void releaseAll();
    [[noreturn]] void durabilityLost(const QString& why);
    // Whether the gate is busy; if so `again` runs once after the handling that holds it.
    bool waitAtGateOnce(bool& waiting, void (Engiene::*again)());
    void requeue(const delivery_batch::delivery& delivery);
    // The store's server went away while `delivery` was handled (its unit began where
    // the outbox held `outbox_mark`): it goes back to the queue with every delivery of
    // the burst that is not stored, and uplinks pause until the store is back.
    void storeWentAway(const delivery_batch::delivery& delivery, std::size_t outbox_mark, const QString& why);
    // Ends the open burst after its store's server went away outside any delivery.
    void abandonBurstForStore(const QString& why);
    void pauseForStore(const QString& why);
    void resumeAfterStore();
    void runWithoutStoreBatch(const std::function<void()>& work);
    unit beginUnit();
    // False when the store lost the batch's transaction.
    bool endUnit(const unit& u, bool keep);
    // A command or a timer's work as one unit of its own: the open burst is committed
    // first, then `work` runs and is committed; throws when it fails or cannot be stored.
    void runAlone(const std::function<void()>& work);

    static service_metrics::uplink_type typeOf(const QJsonObject& message);
    handling_result handle(const QJsonObject& message, quint64 deliveryTag, bool redelivered = false);
    // Whether this uplink is stored already: an uplink delivered again after its
    // commit, when the acknowledgement was lost with a connection or a killed process.
    bool alreadyStored(const model::ul_message& stored);
    bool isMine(int modem_id, const QString& protocol, const QString& hw_type) const;
    // Steps after a message's own writes (downlink statuses, the controller hook, the
    // queue step): each a unit of its own, whose failure is logged and undoes only it.
    void afterStored(const char* step, const std::function<void()>& work);
    void afterAccepted(const controller_event& event);
    void accept(const QJsonObject& message, quint64 deliveryTag);
    void storeModemState(int modem_id, const QJsonObject& json, const QJsonObject* heartbeat);
    void publishToClients(const model::ul_message& stored, const model::eav_list& records);
    void refreshDlStatuses(const model::ul_message& stored);
    static QString failureLine(const caught_failure& failure, quint64 deliveryTag, const QJsonObject& message,
                               const model::ul_message* parsed);
    QJsonObject sendRaw(const model::dl_message& message, const QString& payloadOverride,
                        service_metrics::dl_source source);
    QJsonObject sendDriverBuilt(const model::dl_message& message, service_metrics::dl_source source);
    // Metrics (engine_metrics.cpp).
    void watchLinks();
    void probeStore();
    void countSettled(const delivery_batch::delivery& delivery);

    DriverBuilder m_builder;
    EngineConfig m_config;
    std::shared_ptr<interfaces::IMessagesDatabase> m_messages;
    std::shared_ptr<interfaces::IEAVDatabase> m_eav;
    std::shared_ptr<interfaces::IDeviceClientsDatabase> m_clients;
    std::shared_ptr<interfaces::IDriverState> m_state;
    std::shared_ptr<interfaces::IDriver> m_driver;
    // The driver's name and hardware pattern, fixed for the process: compiled once, not per message.
    std::shared_ptr<const driver_acceptance> m_acceptance;
    // Outlives the endpoints, whose publishers count into it.
    std::shared_ptr<service_metrics> m_metrics = std::make_shared<service_metrics>();
    // Outlives the endpoints, whose waiting work refers to it.
    handling_gate m_gate;
    // The broker's endpoints when the engine owns them; null over outputs of the caller's.
    std::unique_ptr<amqp_endpoints> m_endpoints;
    engine_outputs m_outputs;
    // Where the deliveries are settled.
    delivery_settler* m_receiver = nullptr;
    rabbit_api_man* m_api = nullptr;
    logger& m_log;
    QTimer m_controller_timer;
    delivery_batch m_batch;
    std::unique_ptr<outbox> m_outbox;
    durable_release m_release;
    std::unique_ptr<store_watch> m_store_watch;
    burst_policy m_burst;
    // Ends a burst that is still open when the event loop turns.
    QTimer m_end_of_turn;
    QTimer m_metrics_timer;
    bool m_flush_waiting = false;         // a flush waits at the gate
    bool m_tick_waiting = false;          // a controller tick waits at the gate
    bool m_release_waiting = false;       // a durable release waits at the gate
    quint64 m_handling_tag = 0;           // the delivery being handled, for log lines
    bool m_handling_redelivered = false;  // ... and whether it was delivered before
    bool m_found_stored = false;          // processUlApp found it stored already
};
