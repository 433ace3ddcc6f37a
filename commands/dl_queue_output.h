#pragma once

#include <QJsonArray>
#include <QJsonObject>
#include <QList>
#include <map>
#include <optional>

#include "model/dl_queues.h"

// Reply shapes of "dl_queue".
namespace dl_queue_output {

// The reply of a "get" for one modem in the normal, queue_compact or modem_compact mode.
QJsonObject get_reply(int mode, const model::dl_queues& set);
// {"action": action, "status": "ok"} or, after failures, "error" with the texts as "result".
QJsonObject edit_reply(const QString& action, const QJsonArray& errors);
QJsonObject unknown_action_reply(const QString& action, int modem_id);

// {"all": {"action": "get", "status": "ok", "modem_list": [ids]}}
QJsonObject modem_list_reply(const QList<int>& modems);
// {"all": {"action": "get", "status": "ok"[, "total_count": n]}}
QJsonObject modem_count_reply(std::optional<int> total);

// The "queue_list" table: per queue name, the modem ids grouped by that queue's status.
class queue_list_table {
public:
    void add(int modem_id, const model::dl_queues& set);
    // {"all": {"action": "get", "status": "ok", "dl": {queue: {status name: [ids]}}}}
    QJsonObject reply() const;

private:
    // Per queue name, per status name, the modem ids; each array grows in place.
    std::map<QString, std::map<QString, QJsonArray>> m_queues;
};

}  // namespace dl_queue_output
