#include "databases/sqlite/registry_db.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QSqlQuery>

#include "databases/sqlite/backend.h"
#include "databases/sqlite/codec.h"
#include "databases/sqlite/sqlite_config.h"

namespace sqlite_db {
namespace {

QStringList clients_from(const QVariant& text) {
    QStringList clients;
    for (const QJsonValue& v : QJsonDocument::fromJson(text.toString().toUtf8()).array())
        clients << v.toString();
    return clients;
}

void write_device(backend& db, int modem_id, const model::device_record& device) {
    QSqlQuery& q = db.statement(
        "INSERT INTO devices (modem_id, protocol, hw_type, clients) VALUES (:modem, :protocol, :hw_type, "
        ":clients)"
        " ON CONFLICT (modem_id) DO UPDATE SET protocol = excluded.protocol, hw_type = excluded.hw_type,"
        " clients = excluded.clients");
    q.bindValue(":modem", modem_id);
    q.bindValue(":protocol", text_value(device.protocol));
    q.bindValue(":hw_type", text_value(device.hw_type));
    q.bindValue(":clients", json_list(device.clients));
    db.run(q);
}

}  // namespace

QStringList client_store::clients(int modem_id) {
    QSqlQuery& q = m_db.statement("SELECT clients FROM devices WHERE modem_id = :modem");
    q.bindValue(":modem", modem_id);
    m_db.run(q);
    const QStringList result = q.next() ? clients_from(q.value(0)) : QStringList();
    q.finish();
    return result;
}

std::pair<QString, QString> client_store::device(int modem_id) {
    QSqlQuery& q = m_db.statement("SELECT protocol, hw_type FROM devices WHERE modem_id = :modem");
    q.bindValue(":modem", modem_id);
    m_db.run(q);
    std::pair<QString, QString> result;
    if (q.next())
        result = {q.value(0).toString(), q.value(1).toString()};
    q.finish();
    return result;
}

clients_database::clients_database(std::shared_ptr<sqlite_db::backend> db)
    : m_db(std::move(db)), m_clients(*m_db) {}

void clients_database::set_device(int modem_id, const model::device_record& device) {
    write_device(*m_db, modem_id, device);
}

bool clients_database::remove_device(int modem_id) {
    QSqlQuery& q = m_db->statement("DELETE FROM devices WHERE modem_id = :modem");
    q.bindValue(":modem", modem_id);
    m_db->run(q);
    const bool removed = q.numRowsAffected() > 0;
    q.finish();
    return removed;
}

std::map<int, model::device_record> clients_database::devices() {
    QSqlQuery& q =
        m_db->statement("SELECT modem_id, protocol, hw_type, clients FROM devices ORDER BY modem_id");
    m_db->run(q);
    std::map<int, model::device_record> result;
    while (q.next())
        result[q.value(0).toInt()] = {q.value(1).toString(), q.value(2).toString(), clients_from(q.value(3))};
    q.finish();
    return result;
}

QString clients_database::backend() const {
    return plugin_name;
}

void seed_devices(backend& db, const std::map<int, model::device_record>& devices) {
    if (devices.empty())
        return;
    backend::transaction tx(db);
    for (const auto& [modem_id, device] : devices)
        write_device(db, modem_id, device);
    tx.commit();
}

interfaces::IWriteBatch* clients_database::write_batch() {
    return m_db.get();
}

}  // namespace sqlite_db
