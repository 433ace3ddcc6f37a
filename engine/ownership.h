#pragma once

#include <QRegExp>
#include <QString>
#include <memory>
#include <utility>

#include "interfaces/IDeviceClientsDatabase.h"
#include "interfaces/IDriver.h"
#include "interfaces/IMessagesDatabase.h"

// "The driver accepts this protocol and hardware type": the protocol equals the driver's
// name exactly, the hardware type matches the driver's pattern as a whole, ignoring case.
// The pattern is compiled once, when the rule is made; the engine makes it when it
// creates the driver and shares it with the command handlers.
class driver_acceptance {
public:
    driver_acceptance(QString protocol, const QString& hw_pattern);
    explicit driver_acceptance(const interfaces::IDriver& driver);

    bool accepts(const QString& protocol, const QString& hw_type) const;
    bool accepts_protocol(const QString& protocol) const;
    bool accepts_hw_type(const QString& hw_type) const;

private:
    QString m_protocol;
    QRegExp m_hw_pattern;
};

// Whether a modem belongs to this instance and to its protocol driver.
class ownership {
public:
    ownership(std::shared_ptr<const driver_acceptance> acceptance,
              std::shared_ptr<interfaces::IDeviceClientsDatabase> clients,
              std::shared_ptr<interfaces::IMessagesDatabase> messages, bool check_enabled);

    // Signed remainder of the modem id by the instance count equals the position.
    static bool instance_matches(int modem_id, int instances, int position);
    // (protocol, hw_type) of a modem: from the clients store, or from its last stored
    // uplink when the clients store lacks either text. Either store may be absent.
    static std::pair<QString, QString> device_of(int modem_id, interfaces::IDeviceClientsDatabase* clients,
                                                 interfaces::IMessagesDatabase* messages);
    std::pair<QString, QString> device_of(int modem_id) const;
    // The per-modem command check: passes when checking is off, else the driver must
    // accept the modem's device.
    bool is_mine(int modem_id) const;

private:
    std::shared_ptr<const driver_acceptance> m_acceptance;
    std::shared_ptr<interfaces::IDeviceClientsDatabase> m_clients;
    std::shared_ptr<interfaces::IMessagesDatabase> m_messages;
    bool m_check_enabled = true;
};
