#include "mbus_factory.h"

QList<interfaces::protocol_instance> MbusDriverFactory::supported(const QJsonObject& configuration) {
    m_config = mbus_driver_config::from_json(configuration);
    QList<interfaces::protocol_instance> pairs;
    for (const QString& instance : m_config.instances) {
        pairs << interfaces::protocol_instance(m_config.protocol, instance);
    }
    return pairs;
}

void MbusDriverFactory::prepare(const interfaces::protocol_instance&,
                                std::shared_ptr<interfaces::IMessagesDatabase>,
                                std::shared_ptr<interfaces::IEAVDatabase>,
                                std::shared_ptr<interfaces::IDriverState>,
                                std::shared_ptr<interfaces::IDeviceClientsDatabase>) {
    // The stores the driver needs come again with create().
}

std::shared_ptr<interfaces::IDriver> MbusDriverFactory::create(
    const interfaces::protocol_instance&, std::shared_ptr<interfaces::IMessagesDatabase> messages,
    std::shared_ptr<interfaces::IEAVDatabase> eav, std::shared_ptr<interfaces::IDriverState> state,
    interfaces::dl_sender send_dl, int ttl_seconds, int) {
    return std::make_shared<MbusDriver>(m_config, std::move(messages), std::move(state), std::move(send_dl),
                                        ttl_seconds, std::move(eav));
}
