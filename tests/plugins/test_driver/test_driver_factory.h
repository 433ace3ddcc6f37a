#pragma once

#include <QJsonObject>
#include <QObject>
#include <memory>

#include "interfaces/factories.h"

// Serves the pairs named by its configuration:
//   {"protocol": "proto7", "instances": ["marl2"], "label": "any text"}
// A missing "protocol" means "proto7" and missing "instances" mean ["marl2"], so a
// factory that is asked despite an empty configuration gives itself away.
class TestDriverFactory : public QObject, public interfaces::IDriverFactory {
    Q_OBJECT
    Q_PLUGIN_METADATA(IID QUILLON_DRIVER_FACTORY_IID)
    Q_INTERFACES(interfaces::IDriverFactory)

public:
    TestDriverFactory() = default;
    Q_DISABLE_COPY(TestDriverFactory)

    QList<interfaces::protocol_instance> supported(const QJsonObject& configuration) override;
    QString name() const override { return "test_driver"; }
    QJsonObject describe() const override;
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
    QJsonObject m_configuration;
    // What prepare() was given, reported by the driver.
    QJsonObject m_prepared;
};
