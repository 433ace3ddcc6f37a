#include "commands/GetDownlinkMessage.h"

#include <QJsonArray>

#include "commands/handler_support.h"
#include "commands/keyed_reply.h"
#include "commands/query_readers.h"
#include "model/json.h"

GetDownlinkMessage::GetDownlinkMessage(std::shared_ptr<command_context> context)
    : m_context(std::move(context)) {}

QJsonObject GetDownlinkMessage::execute(const api_message& message) {
    const QJsonObject body = handler_support::command_body(message, *m_context, "get_dl_msg");
    return to_reply(query_store(body));
}

// Queried even when no modem is left after the ownership check.
model::per_modem<model::dl_message> GetDownlinkMessage::query_store(const QJsonObject& body) const {
    const model::dl_query query = query_readers::read_dl_query(body, *m_context);
    interfaces::IDownlinkStore& store = m_context->messages->dl();
    if (body.value("not_acked").toBool(false)) {
        return store.list_not_acked(query);
    }
    return store.list(query);
}

QJsonObject GetDownlinkMessage::to_reply(const model::per_modem<model::dl_message>& found) {
    keyed_reply reply;
    for (const auto& [modem_id, messages] : found) {
        QJsonArray list;
        for (const model::dl_message& message : messages) {
            list.append(model::to_json(message));
        }
        reply.insert(modem_id, list);
    }
    return reply.take();
}
