#pragma once

#include "databases/dummy/memory_data.h"
#include "interfaces/IDeviceClientsDatabase.h"

// The device registry held in memory.
class memory_clients : public interfaces::IDeviceClientsDatabase, public interfaces::IClientStore {
public:
    explicit memory_clients(memory_data& data) : m_data(data) {}

    void set_device(int modem_id, const model::device_record& device) override;
    bool remove_device(int modem_id) override;
    std::map<int, model::device_record> devices() override { return m_data.devices; }
    QString backend() const override { return "memory"; }
    interfaces::IClientStore& clients_store() override { return *this; }
    model::meter_link meter_link(int modem_id) override;

    QStringList clients(int modem_id) override;
    std::pair<QString, QString> device(int modem_id) override;

private:
    memory_data& m_data;
};
