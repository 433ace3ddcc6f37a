#include "commands/dl_queue_output.h"

#include <QJsonArray>

#include "commands/dl_queue_request.h"
#include "model/json.h"

namespace dl_queue_output {
namespace {

QJsonObject queue_statuses(const model::dl_queues& set) {
    QJsonObject statuses;
    for (const auto& [name, queue] : set.dl) {
        statuses[name] = model::dl_queue_status_name(queue.status);
    }
    return statuses;
}

QJsonObject listing(const char* key, const QJsonValue& value) {
    QJsonObject all{{"action", "get"}, {"status", "ok"}};
    if (key) {
        all[key] = value;
    }
    return QJsonObject{{"all", all}};
}

// Every status a queue can have, each with no modem yet.
std::map<QString, QJsonArray> empty_status_groups() {
    std::map<QString, QJsonArray> groups;
    for (int status = model::NONE; status <= model::OUTDATE; ++status) {
        groups[model::dl_queue_status_name(status)] = QJsonArray();
    }
    return groups;
}

}  // namespace

QJsonObject get_reply(int mode, const model::dl_queues& set) {
    QJsonObject reply{{"action", "get"}};
    if (mode == mode_modem_compact) {
        reply["status"] = model::dl_queue_status_name(set.status);
        return reply;
    }
    if (mode == mode_queue_compact) {
        const QJsonObject statuses = queue_statuses(set);
        for (auto it = statuses.begin(); it != statuses.end(); ++it) {
            reply[it.key()] = it.value();
        }
    } else {
        reply["result"] = model::to_json(set);
    }
    reply["status"] = "ok";
    return reply;
}

QJsonObject edit_reply(const QString& action, const QJsonArray& errors) {
    QJsonObject reply{{"action", action}};
    if (errors.isEmpty()) {
        reply["status"] = "ok";
    } else {
        reply["status"] = "error";
        reply["result"] = errors;
    }
    return reply;
}

QJsonObject unknown_action_reply(const QString& action, int modem_id) {
    return edit_reply(action, QJsonArray{QString("%1: unknown action").arg(modem_id)});
}

QJsonObject modem_list_reply(const QList<int>& modems) {
    QJsonArray ids;
    for (int id : modems) {
        ids.append(id);
    }
    return listing("modem_list", ids);
}

QJsonObject modem_count_reply(std::optional<int> total) {
    return total ? listing("total_count", *total) : listing(nullptr, QJsonValue());
}

void queue_list_table::add(int modem_id, const model::dl_queues& set) {
    for (const auto& [name, queue] : set.dl) {
        auto found = m_queues.find(name);
        if (found == m_queues.end()) {
            found = m_queues.emplace(name, empty_status_groups()).first;
        }
        found->second[model::dl_queue_status_name(queue.status)].append(modem_id);
    }
}

QJsonObject queue_list_table::reply() const {
    QJsonObject dl;
    for (const auto& [name, groups] : m_queues) {
        QJsonObject by_status;
        for (const auto& [status, modems] : groups) {
            by_status.insert(status, modems);
        }
        dl.insert(name, by_status);
    }
    return listing("dl", dl);
}

}  // namespace dl_queue_output
