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
                                std::shared_ptr<interfaces::IDeviceClientsDatabase> clients) {
    // The other stores come again with create(); the registry only here.
    m_registry = std::move(clients);
}

std::shared_ptr<interfaces::IDriver> MbusDriverFactory::create(
    const interfaces::protocol_instance&, std::shared_ptr<interfaces::IMessagesDatabase> messages,
    std::shared_ptr<interfaces::IEAVDatabase> eav, std::shared_ptr<interfaces::IDriverState> state,
    interfaces::dl_sender send_dl, int ttl_seconds, int) {
    auto driver = std::make_shared<MbusDriver>(m_config, std::move(messages), std::move(state),
                                               std::move(send_dl), ttl_seconds, std::move(eav));
    // The driver sees one modem's meter link at a time, nothing else of the registry. The
    // factory lives as long as the plugin library and must not keep the store beyond the
    // plugin manager that owns it: the driver takes it over.
    if (auto registry = std::move(m_registry)) {
        driver->set_meter_directory([registry](int modem_id) { return registry->meter_link(modem_id); });
    }
    return driver;
}
