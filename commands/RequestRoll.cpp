#include "commands/RequestRoll.h"

#include <QStringList>

#include "commands/command_context.h"
#include "commands/handler_support.h"
#include "commands/modem_ok_reply.h"
#include "commands/query_readers.h"
#include "commands/republication.h"

RequestRoll::RequestRoll(std::shared_ptr<command_context> context) : m_context(std::move(context)) {}

QJsonObject RequestRoll::execute(const api_message& message) {
    const model::roll_query query = read_query(message);
    if (!query.modem_id.isEmpty()) {
        publish(load(query));
    }
    return modem_ok_reply(query.modem_id);
}

model::roll_query RequestRoll::read_query(const api_message& message) const {
    const QJsonObject body = handler_support::command_body(message, *m_context, "request_roll");
    return query_readers::read_roll_query(body, *m_context);
}

model::per_modem<model::ul_message> RequestRoll::load(const model::roll_query& query) const {
    model::per_modem<model::ul_message> messages;
    m_context->messages->ul().get_roll(messages, query);
    return messages;
}

void RequestRoll::publish(const model::per_modem<model::ul_message>& messages) const {
    for (const auto& [modem_id, modem_messages] : messages) {
        publish_modem(modem_id, modem_messages);
    }
}

void RequestRoll::publish_modem(int modem_id, const std::vector<model::ul_message>& messages) const {
    const QStringList clients = republication::clients_of(*m_context, modem_id);
    for (const model::ul_message& message : messages) {
        for (int index = 0; index < clients.size(); ++index) {
            m_context->engine->publish_roll(message, clients[index], index, republication::wrap);
        }
    }
}
