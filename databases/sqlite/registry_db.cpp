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

QVariant optional_byte(int value) {
    return value < 0 ? QVariant(QVariant::Int) : QVariant(value);
}

QVariant optional_text(const QString& text) {
    return text.isEmpty() ? QVariant(QVariant::String) : QVariant(text);
}

void write_device(backend& db, int modem_id, const model::device_record& device) {
    QSqlQuery& q = db.statement(
        "INSERT INTO devices (modem_id, protocol, hw_type, clients, manufacturer, identification, version,"
        " medium, aes_key) VALUES (:modem, :protocol, :hw_type, :clients, :manufacturer, :identification,"
        " :version, :medium, :aes_key)"
        " ON CONFLICT (modem_id) DO UPDATE SET protocol = excluded.protocol, hw_type = excluded.hw_type,"
        " clients = excluded.clients, manufacturer = excluded.manufacturer,"
        " identification = excluded.identification, version = excluded.version, medium = excluded.medium,"
        " aes_key = excluded.aes_key");
    q.bindValue(":modem", modem_id);
    q.bindValue(":protocol", text_value(device.protocol));
    q.bindValue(":hw_type", text_value(device.hw_type));
    q.bindValue(":clients", json_list(device.clients));
    q.bindValue(":manufacturer", optional_text(device.meter.manufacturer));
    q.bindValue(":identification", optional_text(device.meter.identification));
    q.bindValue(":version", optional_byte(device.meter.version));
    q.bindValue(":medium", optional_byte(device.meter.medium));
    q.bindValue(":aes_key", optional_text(QString::fromLatin1(device.meter.aes_key.toHex())));
    db.run(q);
}

// Columns manufacturer, identification, version, medium, aes_key from `first` on.
model::meter_link meter_from(const QSqlQuery& q, int first) {
    model::meter_link link;
    link.manufacturer = q.value(first).toString();
    link.identification = q.value(first + 1).toString();
    link.version = q.value(first + 2).isNull() ? -1 : q.value(first + 2).toInt();
    link.medium = q.value(first + 3).isNull() ? -1 : q.value(first + 3).toInt();
    link.aes_key = QByteArray::fromHex(q.value(first + 4).toString().toLatin1());
    return link;
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
    QSqlQuery& q = m_db->statement(
        "SELECT modem_id, protocol, hw_type, clients, manufacturer, identification, version, medium, aes_key"
        " FROM devices ORDER BY modem_id");
    m_db->run(q);
    std::map<int, model::device_record> result;
    while (q.next())
        result[q.value(0).toInt()] = {q.value(1).toString(), q.value(2).toString(), clients_from(q.value(3)),
                                      meter_from(q, 4)};
    q.finish();
    return result;
}

model::meter_link clients_database::meter_link(int modem_id) {
    QSqlQuery& q = m_db->statement(
        "SELECT manufacturer, identification, version, medium, aes_key FROM devices WHERE modem_id = :modem");
    q.bindValue(":modem", modem_id);
    m_db->run(q);
    const model::meter_link result = q.next() ? meter_from(q, 0) : model::meter_link();
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
