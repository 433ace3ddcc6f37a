#pragma once

#include <QString>
#include <memory>
#include <utility>

#include "interfaces/IDeviceClientsDatabase.h"
#include "interfaces/IDriver.h"
#include "interfaces/IMessagesDatabase.h"

// Whether a modem belongs to this instance and to its protocol driver.
class ownership {
public:
    ownership(std::shared_ptr<interfaces::IDriver> driver,
              std::shared_ptr<interfaces::IDeviceClientsDatabase> clients,
              std::shared_ptr<interfaces::IMessagesDatabase> messages, bool check_enabled);

    // Signed remainder of the modem id by the instance count equals the position.
    static bool instance_matches(int modem_id, int instances, int position);
    // protocol equals the driver's name exactly; hw_type matches its pattern as a whole,
    // ignoring case.
    static bool driver_accepts(const interfaces::IDriver& driver, const QString& protocol,
                               const QString& hw_type);
    // (protocol, hw_type) from the registry, or from the last stored uplink when the
    // registry lacks either text.
    std::pair<QString, QString> device_of(int modem_id) const;
    // The per-modem command check: passes when checking is off, else the driver must
    // accept the modem's device.
    bool is_mine(int modem_id) const;

private:
    std::shared_ptr<interfaces::IDriver> m_driver;
    std::shared_ptr<interfaces::IDeviceClientsDatabase> m_clients;
    std::shared_ptr<interfaces::IMessagesDatabase> m_messages;
    bool m_check_enabled = true;
};
