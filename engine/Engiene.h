#pragma once

#include <QJsonObject>
#include <QObject>
#include <QRegExp>
#include <QTimer>
#include <memory>

#include "amqp/rabbit_api_man.h"
#include "amqp/rabbit_publisher.h"
#include "amqp/rabbit_receiver.h"
#include "app/config.h"
#include "app/logger.h"
#include "engine/delivery_batch.h"
#include "engine/driver_builder.h"
#include "engine/engine_services.h"
#include "interfaces/factories.h"
#include "model/records.h"

// The central object: takes every consumed uplink, has the driver decode it, stores and
// publishes the results, runs the downlink queues and acknowledges or rejects.
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
    ~Engiene() override;
    Q_DISABLE_COPY(Engiene)

    bool processUlApp(const QJsonObject& json, model::ul_message& stored);
    bool processHeartbeat(const QJsonObject& json, model::ul_message& stored);
    bool processDlEvent(const model::dl_event& event);
    void saveExploidObjects(const model::eav_list& records);
    // The downlink-queue step after an accepted message; true when it ran.
    bool processDlQueues(const controller_event& event);

    static QJsonObject sendDlmessageRAW(const model::dl_message& message,
                                        std::shared_ptr<interfaces::IMessagesDatabase> messages,
                                        rabbit_api_man* api, QString payloadOverride);
    QJsonObject sendDlmessage(const model::dl_message& message);

    // IEngineServices
    QJsonObject send_downlink(const model::dl_message& message) override;
    void publish_record(const model::ul_message& stored, const model::eav_record& record,
                        const QString& client, int index, bool wrap) override;
    void publish_roll(const model::ul_message& message, const QString& client, int index, bool wrap) override;
    void send_command(const QString& type, const QJsonObject& data, const QString& routing_key) override;

    std::shared_ptr<interfaces::IDriver> driver() const { return m_driver; }
    rabbit_api_man* api() const { return m_api.get(); }
    rabbit_receiver* receiver() const { return m_receiver.get(); }
    const EngineConfig& config() const { return m_config; }

public Q_SLOTS:
    void onUlReceived(QJsonObject message, quint64 deliveryTag);

private Q_SLOTS:
    void onControllerTick();
    // Commits the store writes of the deliveries handled since the last flush, then
    // acknowledges or rejects them.
    void flushDeliveries();

private:
    // Handles one message to the end; false when it is to be rejected. keep turns false
    // when the handling failed and its writes are to be undone.
    bool handle(const QJsonObject& message, quint64 deliveryTag, bool& keep);
    // Settles at once, or after the commit of the open batch of writes.
    void settleWhenStored(delivery_batch::delivery delivery);
    void settle(const delivery_batch::delivery& delivery);
    bool dispatch(const QJsonObject& message, model::ul_message& stored, controller_event& event,
                  bool& accept);
    void afterAccepted(const controller_event& event);
    void accept(const QJsonObject& message, quint64 deliveryTag);
    bool isMine(int modem_id, const QString& protocol, const QString& hw_type) const;
    bool driverAccepts(const QString& protocol, const QString& hw_type) const;
    void storeModemState(int modem_id, const QJsonObject& json, const QJsonObject* heartbeat);
    void publishToClients(const model::ul_message& stored, const model::eav_list& records);
    void refreshDlStatuses(const model::ul_message& stored);
    void logFailure(const QString& what, quint64 deliveryTag, const QJsonObject& message,
                    const model::ul_message* parsed);

    DriverBuilder m_builder;
    EngineConfig m_config;
    std::shared_ptr<interfaces::IMessagesDatabase> m_messages;
    std::shared_ptr<interfaces::IEAVDatabase> m_eav;
    std::shared_ptr<interfaces::IDeviceClientsDatabase> m_clients;
    std::shared_ptr<interfaces::IDriverState> m_state;
    std::shared_ptr<interfaces::IDriver> m_driver;
    // The driver's name and hardware pattern, fixed for the process: compiled once, not per message.
    QString m_driver_protocol;
    QRegExp m_hw_pattern;
    std::unique_ptr<rabbit_receiver> m_receiver;
    std::unique_ptr<rabbit_publisher<rabbit_publisher_clients_config>> m_publisher;
    std::unique_ptr<rabbit_api_man> m_api;
    logger& m_log;
    QTimer m_controller_timer;
    delivery_batch m_batch;
    // Flushes deliveries that arrived some other way than a burst from the receiver.
    QTimer m_flush_timer;
};
