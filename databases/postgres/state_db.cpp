#include "databases/postgres/state_db.h"

#include <QDebug>
#include <QJsonArray>
#include <QJsonDocument>

#include "databases/common/state_value.h"
#include "databases/postgres/backend.h"
#include "model/json.h"

namespace postgres_db {
namespace {

// An entry is kept as a one-element JSON array, so scalars round-trip too.
QString entry_text(const QJsonValue& value) {
    return QString::fromUtf8(QJsonDocument(QJsonArray{value}).toJson(QJsonDocument::Compact));
}

QJsonValue entry_from(const QString& text) {
    const QJsonArray wrapped = QJsonDocument::fromJson(text.toUtf8()).array();
    return wrapped.isEmpty() ? QJsonValue(QJsonValue::Undefined) : wrapped.at(0);
}

QList<int> ids_of(const result& r) {
    QList<int> out;
    for (int row = 0; row < r.rows(); ++row)
        out << r.to_int(row, 0);
    return out;
}

}  // namespace

model::dl_queues queue_store::load(int modem_id) {
    const result r = m_db.run("SELECT queues FROM dl_queue_sets WHERE modem_id = $1", params().add(modem_id));
    return r.rows() > 0 ? model::dl_queues_from_json(r.to_object(0, 0)) : model::dl_queues();
}

void queue_store::save(int modem_id, const model::dl_queues& queues, int) {
    m_db.run(
        "INSERT INTO dl_queue_sets (modem_id, queues, queue_count) VALUES ($1, $2, $3)"
        " ON CONFLICT (modem_id) DO UPDATE SET queues = excluded.queues, queue_count = excluded.queue_count",
        params().add(modem_id).add_object(model::to_json(queues)).add(int(queues.dl.size())));
}

state_database::state_database(std::shared_ptr<backend> db) : m_db(std::move(db)), m_queues(*m_db) {}

void state_database::begin(int modem_id) {
    ++m_open_changes[modem_id];
}

void state_database::end(int modem_id, int flag) {
    auto it = m_open_changes.find(modem_id);
    if (it == m_open_changes.end())
        qWarning() << "driver state: end without begin for modem" << modem_id;
    else if (--it->second == 0)
        m_open_changes.erase(it);
    m_db->run(
        "INSERT INTO state_marks (modem_id, mark) VALUES ($1, $2)"
        " ON CONFLICT (modem_id) DO UPDATE SET mark = excluded.mark",
        params().add(modem_id).add(flag));
}

void state_database::remove(int modem_id) {
    backend::transaction tx(*m_db);
    m_db->run("DELETE FROM state_entries WHERE modem_id = $1", params().add(modem_id));
    m_db->run("DELETE FROM state_marks WHERE modem_id = $1", params().add(modem_id));
    tx.commit();
}

QJsonValue state_database::get(int modem_id, const QString& key) {
    const result r = m_db->run("SELECT value FROM state_entries WHERE modem_id = $1 AND key = $2",
                               params().add(modem_id).add(key));
    return r.rows() > 0 ? entry_from(r.text(0, 0)) : QJsonValue(QJsonValue::Undefined);
}

void state_database::set(int modem_id, const QString& key, const interfaces::state_value& value) {
    put_entry(modem_id, key, db_common::state_value_json(value));
}

void state_database::put_entry(int modem_id, const QString& key, const QJsonValue& value) {
    if (value.isUndefined()) {
        // An undefined value is no entry at all, as in a QJsonObject.
        m_db->run("DELETE FROM state_entries WHERE modem_id = $1 AND key = $2",
                  params().add(modem_id).add(key));
        return;
    }
    m_db->run(
        "INSERT INTO state_entries (modem_id, key, value) VALUES ($1, $2, $3)"
        " ON CONFLICT (modem_id, key) DO UPDATE SET value = excluded.value",
        params().add(modem_id).add(key).add(entry_text(value)));
}

QJsonObject state_database::state(int modem_id) {
    const result r =
        m_db->run("SELECT key, value FROM state_entries WHERE modem_id = $1", params().add(modem_id));
    QJsonObject out;
    for (int row = 0; row < r.rows(); ++row)
        out.insert(r.text(row, 0), entry_from(r.text(row, 1)));
    return out;
}

int state_database::mark(int modem_id) {
    const result r = m_db->run("SELECT mark FROM state_marks WHERE modem_id = $1", params().add(modem_id));
    return r.rows() > 0 ? r.to_int(0, 0) : 0;
}

QList<int> state_database::modems_with_state() {
    return ids_of(m_db->run("SELECT DISTINCT modem_id FROM state_entries ORDER BY modem_id"));
}

void state_database::save(int modem_id, const QJsonObject& state) {
    backend::transaction tx(*m_db);
    m_db->run("DELETE FROM state_entries WHERE modem_id = $1", params().add(modem_id));
    for (auto it = state.begin(); it != state.end(); ++it)
        put_entry(modem_id, it.key(), it.value());
    tx.commit();
}

QList<int> state_database::ids(const QString& hw_type, const QString& protocol) {
    return ids_of(m_db->run(
        "SELECT modem_id FROM devices WHERE ($1 OR hw_type = $2) AND ($3 OR protocol = $4) ORDER BY modem_id",
        params().add(hw_type == "*").add(hw_type).add(protocol == "*").add(protocol)));
}

int state_database::list_modems(QList<int>& out, int offset, int limit) {
    const result count = m_db->run("SELECT count(*) FROM dl_queue_sets WHERE queue_count > 0");
    params values;
    if (limit > 0)
        values.add(limit);
    else
        values.add_null();  // LIMIT NULL: no limit
    values.add(qMax(offset, 0));
    out = ids_of(m_db->run(
        "SELECT modem_id FROM dl_queue_sets WHERE queue_count > 0 ORDER BY modem_id LIMIT $1 OFFSET $2",
        values));
    return count.to_int(0, 0);
}

void state_database::prepare(int) {
    // Nothing to set up: the queue table exists from start-up and a modem without a
    // row loads an empty set.
}

void state_database::clear_queues() {
    m_db->run("DELETE FROM dl_queue_sets");
}

std::shared_ptr<void> state_database::lock(int modem_id) {
    return m_db->guard(modem_id);
}

interfaces::IWriteBatch* state_database::write_batch() {
    return m_db.get();
}

}  // namespace postgres_db
