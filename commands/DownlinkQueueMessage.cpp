#include "commands/DownlinkQueueMessage.h"

#include <QJsonArray>

#include "commands/dl_queue_editor.h"
#include "commands/handler_support.h"
#include "commands/keyed_reply.h"
#include "commands/query_readers.h"

DownlinkQueueMessage::DownlinkQueueMessage(std::shared_ptr<command_context> context)
    : m_context(std::move(context)) {}

QJsonObject DownlinkQueueMessage::execute(const api_message& message) {
    const QJsonObject body = handler_support::command_body(message, *m_context, "dl_queue");
    return run(body);
}

QJsonObject DownlinkQueueMessage::run(const QJsonObject& body) {
    const dl_queue_request request = read_dl_queue_request(body, *m_context);
    if (request.mode == mode_modem_list) {
        return list_modems(request);
    }
    if (request.mode == mode_modem_count) {
        return count_modems(request);
    }
    const bool listing_all = request.addressees.empty() && request.admin;
    QJsonObject reply =
        process_addressees(request, listing_all ? admin_addressees(request) : request.addressees);
    if (request.has_all) {
        reply["all"] = all_echo(request);
    }
    if (request.mode == mode_queue_list) {
        reply["all"] = m_table.reply()["all"];
    }
    return reply;
}

QJsonObject DownlinkQueueMessage::list_modems(const dl_queue_request& request) const {
    QList<int> modems;
    m_context->state->list_modems(modems, request.offset, request.limit);
    return dl_queue_output::modem_list_reply(modems);
}

// The total is an installation-wide figure: only given to an admin request.
QJsonObject DownlinkQueueMessage::count_modems(const dl_queue_request& request) const {
    if (!request.admin) {
        return dl_queue_output::modem_count_reply(std::nullopt);
    }
    QList<int> modems;
    return dl_queue_output::modem_count_reply(m_context->state->list_modems(modems, 0, 0));
}

// A page of the modems that have queues, each with a "get" request.
std::map<QString, QJsonValue> DownlinkQueueMessage::admin_addressees(const dl_queue_request& request) const {
    QList<int> modems;
    m_context->state->list_modems(modems, request.offset, request.limit);
    const QJsonObject get{{"action", "get"}};
    std::map<QString, QJsonValue> addressees;
    for (int id : modems) {
        addressees.emplace(QString::number(id), get);
    }
    return addressees;
}

// Keys that are not modem ids are dropped with an Error line, foreign modems silently.
// Two keys of one modem ("7" and "07") are handled once, the first in key order.
QJsonObject DownlinkQueueMessage::process_addressees(const dl_queue_request& request,
                                                     const std::map<QString, QJsonValue>& addressees) {
    const ownership owner = m_context->owner();
    keyed_reply reply;
    int repeated = 0;
    if (addressees.size() > size_t(query_readers::max_listed_modems)) {
        handler_support::log_error(
            *m_context, QString("dl_queue: %1 modems addressed, only the first %2 in key order are handled")
                            .arg(addressees.size())
                            .arg(query_readers::max_listed_modems));
    }
    int handled = 0;
    for (const auto& [key, value] : addressees) {
        if (++handled > query_readers::max_listed_modems) {
            break;
        }
        const auto id = query_readers::modem_id_from_key(key, *m_context);
        if (!id || !owner.is_mine(*id)) {
            continue;
        }
        if (m_processed.contains(*id)) {
            ++repeated;
            continue;
        }
        m_processed.insert(*id);
        reply.insert(*id, process_modem(*id, value.toObject(), request.mode));
    }
    if (repeated > 0) {
        handler_support::log_error(
            *m_context,
            QString("dl_queue: %1 keys name a modem named before, not handled again").arg(repeated));
    }
    return reply.take();
}

// The modem's guard is held from loading its queue set until it has been saved.
QJsonObject DownlinkQueueMessage::process_modem(int modem_id, const QJsonObject& request, int mode) {
    interfaces::IDriverState& state = *m_context->state;
    state.prepare(modem_id);
    const std::shared_ptr<void> guard = state.lock(modem_id);
    model::dl_queues set = state.queues().load(modem_id);
    const QString action = request.value("action").toString();
    if (action == "get") {
        if (mode == mode_queue_list) {
            m_table.add(modem_id, set);
            return QJsonObject{{"action", "get"}};
        }
        return dl_queue_output::get_reply(mode, set);
    }
    if (dl_queue_editor::is_editing(action)) {
        return edit(modem_id, set, action, request);
    }
    return dl_queue_output::unknown_action_reply(action, modem_id);
}

QJsonObject DownlinkQueueMessage::edit(int modem_id, model::dl_queues& set, const QString& action,
                                       const QJsonObject& request) {
    dl_queue_editor editor(set, modem_id, m_context->log);
    editor.perform(action, request);
    m_context->state->queues().save(modem_id, set, 1);
    return dl_queue_output::edit_reply(action, editor.errors());
}

// The "all" request as sent, its "modem_id" replaced by the listed modems that were processed.
QJsonObject DownlinkQueueMessage::all_echo(const dl_queue_request& request) const {
    QJsonArray processed;
    for (int id : request.all_ids) {  // each id once already
        if (m_processed.contains(id)) {
            processed.append(id);
        }
    }
    QJsonObject echo = request.all_request;
    echo["modem_id"] = processed;
    return echo;
}
