#include "commands/dl_queue_editor.h"

#include <QStringList>

#include "commands/dl_queue_settings.h"

using dl_queue_settings::ttl_form;

dl_queue_editor::dl_queue_editor(model::dl_queues& set, int modem_id, logger* log)
    : m_set(set), m_modem(QString::number(modem_id)), m_log(log) {}

bool dl_queue_editor::is_editing(const QString& action) {
    static const QStringList actions = {"delete", "repeat", "update", "create", "lock", "unlock"};
    return actions.contains(action);
}

void dl_queue_editor::perform(const QString& action, const QJsonObject& request) {
    if (action == "lock" || action == "unlock") {
        set_locks(request, action == "lock");
        return;
    }
    for (auto it = request.begin(); it != request.end(); ++it) {
        if (it.key() == "action") {
            continue;
        }
        if (!it.value().isObject()) {
            log_skipped(QString("queue '%1' is not given as an object").arg(it.key()));
            continue;
        }
        const QJsonObject items = it.value().toObject();
        if (action == "delete") {
            remove(it.key(), items);
        } else if (action == "repeat") {
            repeat(it.key(), items);
        } else if (action == "update") {
            update(it.key(), items);
        } else if (action == "create") {
            create(it.key(), items);
        }
    }
}

// An empty object deletes the whole queue, otherwise the named entries.
void dl_queue_editor::remove(const QString& queue, const QJsonObject& items) {
    model::dl_queue* found = find(queue);
    if (!found) {
        queue_not_exist(queue);
        return;
    }
    if (items.isEmpty()) {
        m_set.dl.erase(queue);
        return;
    }
    for (const QString& entry : items.keys()) {
        if (find_entry(*found, queue, entry)) {
            found->entries.erase(entry);
        }
    }
}

// Resets the whole queue (empty object) or the named entries so that they are sent again.
void dl_queue_editor::repeat(const QString& queue, const QJsonObject& items) {
    model::dl_queue* found = find(queue);
    if (!found) {
        queue_not_exist(queue);
        return;
    }
    auto reset = [found](model::dl_queue_entry& entry) {
        entry.status = model::NONE;
        entry.repeat = 0;
        found->status = model::NONE;
    };
    if (items.isEmpty()) {
        found->status = model::NONE;
        for (auto& entry : found->entries) {
            reset(entry.second);
        }
        return;
    }
    for (const QString& entry : items.keys()) {
        if (model::dl_queue_entry* e = find_entry(*found, queue, entry)) {
            reset(*e);
        }
    }
}

void dl_queue_editor::update(const QString& queue, const QJsonObject& items) {
    if (items.isEmpty()) {
        fail(QString("%2: '%1' queue is empty").arg(queue, m_modem));
        return;
    }
    model::dl_queue* found = find(queue);
    if (!found) {
        fail(QString("%2: '%1' queue is not exist").arg(queue, m_modem));
        return;
    }
    for (auto it = items.begin(); it != items.end(); ++it) {
        if (dl_queue_settings::is_setting(it.key())) {
            dl_queue_settings::apply(*found, it.key(), it.value(), ttl_form::flag);
        } else {
            update_entry(*found, queue, it.key(), it.value());
        }
    }
}

void dl_queue_editor::create(const QString& queue, const QJsonObject& items) {
    if (find(queue)) {
        fail(QString("%2: '%1' allready exist").arg(queue, m_modem));
        return;
    }
    model::dl_queue created;
    for (auto it = items.begin(); it != items.end(); ++it) {
        if (dl_queue_settings::is_setting(it.key())) {
            dl_queue_settings::apply(created, it.key(), it.value(), ttl_form::seconds);
        } else {
            create_entry(created, queue, it.key(), it.value());
        }
    }
    m_set.dl[queue] = created;
}

void dl_queue_editor::set_queue_lock(const QString& queue, bool lock) {
    model::dl_queue* found = find(queue);
    if (!found) {
        queue_not_exist(queue);
        return;
    }
    found->lock = lock;
}

// Named queues are (un)locked one by one; "action" alone (un)locks the set itself.
void dl_queue_editor::set_locks(const QJsonObject& request, bool lock) {
    QStringList queues = request.keys();
    queues.removeAll("action");
    if (queues.isEmpty()) {
        m_set.lock = lock;
        return;
    }
    for (const QString& queue : queues) {
        set_queue_lock(queue, lock);
    }
}

void dl_queue_editor::update_entry(model::dl_queue& queue, const QString& queue_name, const QString& entry,
                                   const QJsonValue& fields) {
    model::dl_queue_entry* found = find_entry(queue, queue_name, entry);
    if (!found) {
        return;
    }
    if (!fields.isObject()) {
        log_skipped(QString("entry '%1' of queue '%2' is not given as an object").arg(entry, queue_name));
        return;
    }
    dl_queue_settings::update_entry(*found, fields.toObject());
}

// Only members whose value is an object are entries; each must hold "data".
void dl_queue_editor::create_entry(model::dl_queue& queue, const QString& queue_name, const QString& entry,
                                   const QJsonValue& fields) {
    if (!fields.isObject()) {
        log_skipped(QString("member '%1' of new queue '%2' is neither a setting nor an entry")
                        .arg(entry, queue_name));
        return;
    }
    if (!fields.toObject().contains("data")) {
        fail(QString("%3: '%1' in '%2' queue not exist data").arg(entry, queue_name, m_modem));
        return;
    }
    queue.entries[entry] = dl_queue_settings::new_entry(fields.toObject());
}

model::dl_queue* dl_queue_editor::find(const QString& queue) {
    const auto found = m_set.dl.find(queue);
    return found == m_set.dl.end() ? nullptr : &found->second;
}

// The entry, or nothing with the error text of a missing entry.
model::dl_queue_entry* dl_queue_editor::find_entry(model::dl_queue& queue, const QString& queue_name,
                                                   const QString& entry) {
    const auto found = queue.entries.find(entry);
    if (found == queue.entries.end()) {
        fail(QString("%3: '%1' in '%2' queue not exist").arg(entry, queue_name, m_modem));
        return nullptr;
    }
    return &found->second;
}

void dl_queue_editor::queue_not_exist(const QString& queue) {
    fail(QString("%2: '%1' queue not exist").arg(queue, m_modem));
}

void dl_queue_editor::fail(const QString& text) {
    m_errors.append(text);
}

void dl_queue_editor::log_skipped(const QString& what) {
    if (m_log) {
        log_line(*m_log, Error) << "dl_queue: modem " << m_modem << ": " << what << ", skipped";
    }
}
