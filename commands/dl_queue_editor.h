#pragma once

#include <QJsonArray>
#include <QJsonObject>
#include <QString>

#include "app/logger.h"
#include "model/dl_queues.h"

// The editing actions of "dl_queue" on one modem's queue set. Each failed item adds
// one error text and the remaining items are still performed.
class dl_queue_editor {
public:
    dl_queue_editor(model::dl_queues& set, int modem_id, logger* log);

    // Whether action is one of "delete", "repeat", "update", "create", "lock", "unlock".
    static bool is_editing(const QString& action);
    // Performs an editing action for every queue key of the request (every key but "action").
    void perform(const QString& action, const QJsonObject& request);

    bool failed() const { return !m_errors.isEmpty(); }
    const QJsonArray& errors() const { return m_errors; }

private:
    void remove(const QString& queue, const QJsonObject& items);
    void repeat(const QString& queue, const QJsonObject& items);
    void update(const QString& queue, const QJsonObject& items);
    void create(const QString& queue, const QJsonObject& items);
    void set_queue_lock(const QString& queue, bool lock);
    void set_locks(const QJsonObject& request, bool lock);

    void update_entry(model::dl_queue& queue, const QString& queue_name, const QString& entry,
                      const QJsonValue& fields);
    void create_entry(model::dl_queue& queue, const QString& queue_name, const QString& entry,
                      const QJsonValue& fields);
    model::dl_queue* find(const QString& queue);
    model::dl_queue_entry* find_entry(model::dl_queue& queue, const QString& queue_name,
                                      const QString& entry);

    void queue_not_exist(const QString& queue);
    void fail(const QString& text);
    void log_skipped(const QString& what);

    model::dl_queues& m_set;
    QString m_modem;
    logger* m_log = nullptr;
    QJsonArray m_errors;
};
