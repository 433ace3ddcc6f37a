#include "databases/sqlite/state_db.h"

#include <QDebug>
#include <QJsonArray>
#include <QJsonDocument>
#include <QSqlQuery>

#include "databases/common/state_value.h"
#include "databases/sqlite/backend.h"
#include "databases/sqlite/codec.h"
#include "model/json.h"
#include "model/json_text.h"

namespace sqlite_db {
namespace {

// An entry is kept as a one-element JSON array, so scalars round-trip too.
// The value as the single element of a compact JSON array, UTF-8.
QByteArray entry_text(const QJsonValue& value) {
    QByteArray text;
    text.reserve(256);
    text.append('[');
    model::json_text_detail::append_value(text, value);
    text.append(']');
    return text;
}

QJsonValue entry_from(const QVariant& text) {
    const QJsonArray wrapped = QJsonDocument::fromJson(text.toString().toUtf8()).array();
    return wrapped.isEmpty() ? QJsonValue(QJsonValue::Undefined) : wrapped.at(0);
}

}  // namespace

model::dl_queues queue_store::load(int modem_id) {
    QSqlQuery& q = m_db.statement("SELECT queues FROM dl_queue_sets WHERE modem_id = :modem");
    q.bindValue(":modem", modem_id);
    m_db.run(q);
    model::dl_queues set;
    if (q.next())
        set = model::dl_queues_from_json(object_from(q.value(0)));
    q.finish();
    return set;
}

void queue_store::save(int modem_id, const model::dl_queues& queues, int) {
    QSqlQuery& q = m_db.statement(
        "INSERT INTO dl_queue_sets (modem_id, queues, queue_count) VALUES (:modem, :queues, :count)"
        " ON CONFLICT (modem_id) DO UPDATE SET queues = excluded.queues, queue_count = excluded.queue_count");
    q.bindValue(":modem", modem_id);
    q.bindValue(":queues", object_text(model::to_json(queues)));
    q.bindValue(":count", int(queues.dl.size()));
    m_db.run(q);
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
    // An unchanged mark is left alone: the commit then writes no page of the table for it.
    native_statement& q = m_db->native(
        "INSERT INTO state_marks (modem_id, mark) VALUES (:modem, :mark)"
        " ON CONFLICT (modem_id) DO UPDATE SET mark = excluded.mark WHERE mark <> excluded.mark");
    q.bind_int(1, modem_id);
    q.bind_int(2, flag);
    q.run();
}

void state_database::remove(int modem_id) {
    backend::transaction tx(*m_db);
    QSqlQuery& entries = m_db->statement("DELETE FROM state_entries WHERE modem_id = :modem");
    entries.bindValue(":modem", modem_id);
    m_db->run(entries);
    QSqlQuery& marks = m_db->statement("DELETE FROM state_marks WHERE modem_id = :modem");
    marks.bindValue(":modem", modem_id);
    m_db->run(marks);
    tx.commit();
}

QJsonValue state_database::get(int modem_id, const QString& key) {
    QSqlQuery& q = m_db->statement("SELECT value FROM state_entries WHERE modem_id = :modem AND key = :key");
    q.bindValue(":modem", modem_id);
    q.bindValue(":key", key);
    m_db->run(q);
    const QJsonValue value = q.next() ? entry_from(q.value(0)) : QJsonValue(QJsonValue::Undefined);
    q.finish();
    return value;
}

void state_database::set(int modem_id, const QString& key, const interfaces::state_value& value) {
    put_entry(modem_id, key, db_common::state_value_json(value));
}

void state_database::put_entry(int modem_id, const QString& key, const QJsonValue& value) {
    if (value.isUndefined()) {
        // An undefined value is no entry at all, as in a QJsonObject.
        QSqlQuery& q = m_db->statement("DELETE FROM state_entries WHERE modem_id = :modem AND key = :key");
        q.bindValue(":modem", modem_id);
        q.bindValue(":key", key);
        m_db->run(q);
        return;
    }
    // As with the mark, an unchanged entry is not written again.
    native_statement& q = m_db->native(
        "INSERT INTO state_entries (modem_id, key, value) VALUES (:modem, :key, :value)"
        " ON CONFLICT (modem_id, key) DO UPDATE SET value = excluded.value WHERE value <> excluded.value");
    const QByteArray text = entry_text(value);
    q.bind_int(1, modem_id);
    q.bind_text(2, text_value(key));
    q.bind_utf8(3, text);
    q.run();
}

QJsonObject state_database::state(int modem_id) {
    QSqlQuery& q = m_db->statement("SELECT key, value FROM state_entries WHERE modem_id = :modem");
    q.bindValue(":modem", modem_id);
    m_db->run(q);
    QJsonObject result;
    while (q.next())
        result.insert(q.value(0).toString(), entry_from(q.value(1)));
    q.finish();
    return result;
}

int state_database::mark(int modem_id) {
    QSqlQuery& q = m_db->statement("SELECT mark FROM state_marks WHERE modem_id = :modem");
    q.bindValue(":modem", modem_id);
    m_db->run(q);
    const int result = q.next() ? q.value(0).toInt() : 0;
    q.finish();
    return result;
}

QList<int> state_database::modems_with_state() {
    QSqlQuery& q = m_db->statement("SELECT DISTINCT modem_id FROM state_entries ORDER BY modem_id");
    m_db->run(q);
    QList<int> result;
    while (q.next())
        result << q.value(0).toInt();
    q.finish();
    return result;
}

void state_database::save(int modem_id, const QJsonObject& state) {
    backend::transaction tx(*m_db);
    QSqlQuery& clear = m_db->statement("DELETE FROM state_entries WHERE modem_id = :modem");
    clear.bindValue(":modem", modem_id);
    m_db->run(clear);
    for (auto it = state.begin(); it != state.end(); ++it)
        put_entry(modem_id, it.key(), it.value());
    tx.commit();
}

QList<int> state_database::ids(const QString& hw_type, const QString& protocol) {
    QSqlQuery& q = m_db->statement(
        "SELECT modem_id FROM devices WHERE (:any_hw OR hw_type = :hw_type)"
        " AND (:any_protocol OR protocol = :protocol) ORDER BY modem_id");
    q.bindValue(":any_hw", hw_type == "*");
    q.bindValue(":hw_type", hw_type);
    q.bindValue(":any_protocol", protocol == "*");
    q.bindValue(":protocol", protocol);
    m_db->run(q);
    QList<int> result;
    while (q.next())
        result << q.value(0).toInt();
    q.finish();
    return result;
}

int state_database::list_modems(QList<int>& out, int offset, int limit) {
    out.clear();
    QSqlQuery& count = m_db->statement("SELECT COUNT(*) FROM dl_queue_sets WHERE queue_count > 0");
    m_db->run(count);
    const int total = count.next() ? count.value(0).toInt() : 0;
    count.finish();

    QSqlQuery& q = m_db->statement(
        "SELECT modem_id FROM dl_queue_sets WHERE queue_count > 0"
        " ORDER BY modem_id LIMIT :limit OFFSET :offset");
    q.bindValue(":limit", sql_limit(limit));
    q.bindValue(":offset", qMax(offset, 0));
    m_db->run(q);
    while (q.next())
        out << q.value(0).toInt();
    q.finish();
    return total;
}

void state_database::prepare(int) {
    // Nothing to set up: the queue table exists from start-up and a modem without a
    // row loads an empty set.
}

void state_database::clear_queues() {
    m_db->run_plain("DELETE FROM dl_queue_sets");
}

std::shared_ptr<void> state_database::lock(int modem_id) {
    std::shared_ptr<std::map<int, int>> locks = m_locks;
    ++(*locks)[modem_id];
    // The guard points at a token of its own, so a caller may test it for null.
    return std::shared_ptr<void>(new int(modem_id), [locks, modem_id](void* token) {
        delete static_cast<int*>(token);
        auto it = locks->find(modem_id);
        if (it != locks->end() && --it->second <= 0)
            locks->erase(it);
    });
}

int state_database::lock_depth(int modem_id) const {
    auto it = m_locks->find(modem_id);
    return it == m_locks->end() ? 0 : it->second;
}

interfaces::IWriteBatch* state_database::write_batch() {
    return m_db.get();
}

}  // namespace sqlite_db
