#pragma once

#include <QJsonArray>
#include <QJsonObject>
#include <QObject>

#include "interfaces/factories.h"
#include "mbus_driver.h"

// Root object of plug_mbus.so: serves (protocol, instance) pairs of its configuration
// with the M-Bus application-layer driver.
class MbusDriverFactory : public QObject, public interfaces::IDriverFactory {
    Q_OBJECT
    Q_PLUGIN_METADATA(IID QUILLON_DRIVER_FACTORY_IID)
    Q_INTERFACES(interfaces::IDriverFactory)

public:
    // What this plugin is, what it serves and the configuration keys it reads.
    static QJsonObject description() {
        return {{"name", "mbus"},
                {"serves",
                 "meters sending the M-Bus application layer (EN 13757-3 variable data structure): "
                 "wired M-Bus, wireless M-Bus and OMS; CI fields 0x78, 0x7a and 0x72 (after an AFL, 0x90); "
                 "security modes 5 and 7 decrypted with the device registry's \"aes_key\""},
                {"configuration",
                 QJsonObject{
                     {"protocol", "protocol name the driver serves and reports (default \"proto7\")"},
                     {"instances",
                      "array of instance names served with that protocol (default "
                      "[\"marl2\"])"},
                     {"hw_pattern", "regular expression of the hardware types served (default \".*\")"}}}};
    }

    QList<interfaces::protocol_instance> supported(const QJsonObject& configuration) override;
    QString name() const override { return "mbus"; }
    QJsonObject describe() const override { return description(); }
    void prepare(const interfaces::protocol_instance& pair,
                 std::shared_ptr<interfaces::IMessagesDatabase> messages,
                 std::shared_ptr<interfaces::IEAVDatabase> eav,
                 std::shared_ptr<interfaces::IDriverState> state,
                 std::shared_ptr<interfaces::IDeviceClientsDatabase> clients) override;
    std::shared_ptr<interfaces::IDriver> create(const interfaces::protocol_instance& pair,
                                                std::shared_ptr<interfaces::IMessagesDatabase> messages,
                                                std::shared_ptr<interfaces::IEAVDatabase> eav,
                                                std::shared_ptr<interfaces::IDriverState> state,
                                                interfaces::dl_sender send_dl, int ttl_seconds,
                                                int position) override;

private:
    mbus_driver_config m_config;
    // Handed by prepare() and passed on by create() to the driver, which reads only meter
    // links from it.
    std::shared_ptr<interfaces::IDeviceClientsDatabase> m_registry;
};
