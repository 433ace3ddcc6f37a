#include "databases/dummy/memory_clients.h"

void memory_clients::set_device(int modem_id, const model::device_record& device) {
    m_data.devices[modem_id] = device;
}

bool memory_clients::remove_device(int modem_id) {
    return m_data.devices.erase(modem_id) > 0;
}

QStringList memory_clients::clients(int modem_id) {
    const auto it = m_data.devices.find(modem_id);
    return it == m_data.devices.end() ? QStringList() : it->second.clients;
}

std::pair<QString, QString> memory_clients::device(int modem_id) {
    const auto it = m_data.devices.find(modem_id);
    if (it == m_data.devices.end()) {
        return {};
    }
    return {it->second.protocol, it->second.hw_type};
}

model::meter_link memory_clients::meter_link(int modem_id) {
    const auto it = m_data.devices.find(modem_id);
    return it == m_data.devices.end() ? model::meter_link() : it->second.meter;
}
