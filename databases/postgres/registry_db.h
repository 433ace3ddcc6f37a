#pragma once

#include <map>
#include <memory>

#include "interfaces/IDeviceClientsDatabase.h"

namespace postgres_db {

class backend;

// The device registry (table devices): protocol, hardware type and client list per modem.
class client_store : public interfaces::IClientStore {
public:
    explicit client_store(backend& db) : m_db(db) {}
    QStringList clients(int modem_id) override;
    std::pair<QString, QString> device(int modem_id) override;

private:
    backend& m_db;
};

class clients_database : public interfaces::IDeviceClientsDatabase {
public:
    explicit clients_database(std::shared_ptr<postgres_db::backend> db);
    void set_device(int modem_id, const model::device_record& device) override;
    bool remove_device(int modem_id) override;
    std::map<int, model::device_record> devices() override;
    QString backend() const override;
    interfaces::IClientStore& clients_store() override { return m_clients; }
    interfaces::IWriteBatch* write_batch() override;

private:
    std::shared_ptr<postgres_db::backend> m_db;
    client_store m_clients;
};

// Writes every seeded device in one transaction, replacing stored entries of the same id.
void seed_devices(backend& db, const std::map<int, model::device_record>& devices);

}  // namespace postgres_db
