#include "databases/postgres/registry_db.h"

#include <QJsonArray>
#include <QJsonDocument>

#include "databases/postgres/backend.h"
#include "databases/postgres/pg_config.h"

namespace postgres_db {
namespace {

QStringList clients_from(const QString& text) {
    QStringList clients;
    for (const QJsonValue& v : QJsonDocument::fromJson(text.toUtf8()).array())
        clients << v.toString();
    return clients;
}

QString clients_text(const QStringList& clients) {
    return QString::fromUtf8(
        QJsonDocument(QJsonArray::fromStringList(clients)).toJson(QJsonDocument::Compact));
}

void write_device(backend& db, int modem_id, const model::device_record& device) {
    db.run(
        "INSERT INTO devices (modem_id, protocol, hw_type, clients) VALUES ($1, $2, $3, $4)"
        " ON CONFLICT (modem_id) DO UPDATE SET protocol = excluded.protocol, hw_type = excluded.hw_type,"
        " clients = excluded.clients",
        params().add(modem_id).add(device.protocol).add(device.hw_type).add(clients_text(device.clients)));
}

}  // namespace

QStringList client_store::clients(int modem_id) {
    const result r = m_db.run("SELECT clients FROM devices WHERE modem_id = $1", params().add(modem_id));
    return r.rows() > 0 ? clients_from(r.text(0, 0)) : QStringList();
}

std::pair<QString, QString> client_store::device(int modem_id) {
    const result r =
        m_db.run("SELECT protocol, hw_type FROM devices WHERE modem_id = $1", params().add(modem_id));
    return r.rows() > 0 ? std::make_pair(r.text(0, 0), r.text(0, 1)) : std::pair<QString, QString>();
}

clients_database::clients_database(std::shared_ptr<postgres_db::backend> db)
    : m_db(std::move(db)), m_clients(*m_db) {}

void clients_database::set_device(int modem_id, const model::device_record& device) {
    write_device(*m_db, modem_id, device);
}

bool clients_database::remove_device(int modem_id) {
    return m_db->run("DELETE FROM devices WHERE modem_id = $1", params().add(modem_id)).affected() > 0;
}

std::map<int, model::device_record> clients_database::devices() {
    const result r = m_db->run("SELECT modem_id, protocol, hw_type, clients FROM devices ORDER BY modem_id");
    std::map<int, model::device_record> out;
    for (int row = 0; row < r.rows(); ++row)
        out[r.to_int(row, 0)] = {r.text(row, 1), r.text(row, 2), clients_from(r.text(row, 3))};
    return out;
}

QString clients_database::backend() const {
    return plugin_name;
}

interfaces::IWriteBatch* clients_database::write_batch() {
    return m_db.get();
}

void seed_devices(backend& db, const std::map<int, model::device_record>& devices) {
    if (devices.empty())
        return;
    backend::transaction tx(db);
    for (const auto& [modem_id, device] : devices)
        write_device(db, modem_id, device);
    tx.commit();
}

}  // namespace postgres_db
