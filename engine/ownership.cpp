#include "engine/ownership.h"

#include <QRegExp>
#include <QtGlobal>

ownership::ownership(std::shared_ptr<interfaces::IDriver> driver,
                     std::shared_ptr<interfaces::IDeviceClientsDatabase> clients,
                     std::shared_ptr<interfaces::IMessagesDatabase> messages, bool check_enabled)
    : m_driver(std::move(driver)),
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

bool ownership::driver_accepts(const interfaces::IDriver& driver, const QString& protocol,
                               const QString& hw_type) {
    if (protocol != driver.type_name()) {
        return false;
    }
    QRegExp pattern(driver.hw_pattern(), Qt::CaseInsensitive, QRegExp::RegExp);
    return pattern.exactMatch(hw_type);
}

std::pair<QString, QString> ownership::device_of(int modem_id) const {
    std::pair<QString, QString> device;
    if (m_clients) {
        device = m_clients->clients_store().device(modem_id);
    }
    if ((device.first.isEmpty() || device.second.isEmpty()) && m_messages) {
        m_messages->ul().device(device, modem_id);
    }
    return device;
}

bool ownership::is_mine(int modem_id) const {
    if (!m_check_enabled) {
        return true;
    }
    if (!m_driver) {
        return false;
    }
    const auto device = device_of(modem_id);
    return driver_accepts(*m_driver, device.first, device.second);
}
