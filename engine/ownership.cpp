#include "engine/ownership.h"

#include <QtGlobal>

driver_acceptance::driver_acceptance(QString protocol, const QString& hw_pattern)
    : m_protocol(std::move(protocol)), m_hw_pattern(hw_pattern, Qt::CaseInsensitive, QRegExp::RegExp) {}

driver_acceptance::driver_acceptance(const interfaces::IDriver& driver)
    : driver_acceptance(driver.type_name(), driver.hw_pattern()) {}

bool driver_acceptance::accepts(const QString& protocol, const QString& hw_type) const {
    return accepts_protocol(protocol) && accepts_hw_type(hw_type);
}

bool driver_acceptance::accepts_protocol(const QString& protocol) const {
    return protocol == m_protocol;
}

bool driver_acceptance::accepts_hw_type(const QString& hw_type) const {
    return m_hw_pattern.exactMatch(hw_type);
}

ownership::ownership(std::shared_ptr<const driver_acceptance> acceptance,
                     std::shared_ptr<interfaces::IDeviceClientsDatabase> clients,
                     std::shared_ptr<interfaces::IMessagesDatabase> messages, bool check_enabled)
    : m_acceptance(std::move(acceptance)),
      m_clients(std::move(clients)),
      m_messages(std::move(messages)),
      m_check_enabled(check_enabled) {}

bool ownership::instance_matches(int modem_id, int instances, int position) {
    if (instances == 0) {
        return false;  // no instance can own anything; avoids a division by zero
    }
    // C++ division truncates towards zero: a negative id gives a negative remainder. In 64
    // bits, so that the one quotient that overflows an int (INT_MIN / -1) is defined.
    return qint64(modem_id) % qint64(instances) == position;
}

std::pair<QString, QString> ownership::device_of(int modem_id, interfaces::IDeviceClientsDatabase* clients,
                                                 interfaces::IMessagesDatabase* messages) {
    std::pair<QString, QString> device;
    if (clients) {
        device = clients->clients_store().device(modem_id);
    }
    if ((device.first.isEmpty() || device.second.isEmpty()) && messages) {
        messages->ul().device(device, modem_id);
    }
    return device;
}

std::pair<QString, QString> ownership::device_of(int modem_id) const {
    return device_of(modem_id, m_clients.get(), m_messages.get());
}

bool ownership::is_mine(int modem_id) const {
    if (!m_check_enabled) {
        return true;
    }
    if (!m_acceptance) {
        return false;
    }
    const auto device = device_of(modem_id);
    return m_acceptance->accepts(device.first, device.second);
}
