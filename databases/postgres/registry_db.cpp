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

params& add_optional(params& p, const QString& text) {
    return text.isEmpty() ? p.add_null() : p.add(text);
}

params& add_optional(params& p, int byte) {
    return byte < 0 ? p.add_null() : p.add(byte);
}

void write_device(backend& db, int modem_id, const model::device_record& device) {
    params p;
    p.add(modem_id).add(device.protocol).add(device.hw_type).add(clients_text(device.clients));
    add_optional(p, device.meter.manufacturer);
    add_optional(p, device.meter.identification);
    add_optional(p, device.meter.version);
    add_optional(p, device.meter.medium);
    add_optional(p, QString::fromLatin1(device.meter.aes_key.toHex()));
    db.run(
        "INSERT INTO devices (modem_id, protocol, hw_type, clients, manufacturer, identification, version,"
        " medium, aes_key) VALUES ($1, $2, $3, $4, $5, $6, $7, $8, $9)"
        " ON CONFLICT (modem_id) DO UPDATE SET protocol = excluded.protocol, hw_type = excluded.hw_type,"
        " clients = excluded.clients, manufacturer = excluded.manufacturer,"
        " identification = excluded.identification, version = excluded.version, medium = excluded.medium,"
        " aes_key = excluded.aes_key",
        p);
}

const char* const meter_columns = "manufacturer, identification, version, medium, aes_key";

// The meter columns of `row`, from `first` on.
model::meter_link meter_from(const result& r, int row, int first) {
    model::meter_link link;
    link.manufacturer = r.text(row, first);
    link.identification = r.text(row, first + 1);
    link.version = r.is_null(row, first + 2) ? -1 : r.to_int(row, first + 2);
    link.medium = r.is_null(row, first + 3) ? -1 : r.to_int(row, first + 3);
    link.aes_key = QByteArray::fromHex(r.text(row, first + 4).toLatin1());
    return link;
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
    const result r = m_db->run(QString("SELECT modem_id, protocol, hw_type, clients, %1 FROM devices"
                                       " ORDER BY modem_id")
                                   .arg(meter_columns));
    std::map<int, model::device_record> out;
    for (int row = 0; row < r.rows(); ++row)
        out[r.to_int(row, 0)] = {r.text(row, 1), r.text(row, 2), clients_from(r.text(row, 3)),
                                 meter_from(r, row, 4)};
    return out;
}

model::meter_link clients_database::meter_link(int modem_id) {
    const result r = m_db->run(QString("SELECT %1 FROM devices WHERE modem_id = $1").arg(meter_columns),
                               params().add(modem_id));
    return r.rows() > 0 ? meter_from(r, 0, 0) : model::meter_link();
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
