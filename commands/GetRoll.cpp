#include "commands/GetRoll.h"

#include "commands/command_context.h"
#include "commands/handler_support.h"
#include "commands/history_reply.h"
#include "commands/query_readers.h"

GetRoll::GetRoll(std::shared_ptr<command_context> context) : m_context(std::move(context)) {}

QJsonObject GetRoll::execute(const api_message& message) {
    const model::roll_query query = read_query(message);
    model::per_modem<model::ul_message> messages = load(query);
    return history_reply::consume(messages);
}

model::roll_query GetRoll::read_query(const api_message& message) const {
    const QJsonObject body = handler_support::command_body(message, *m_context, "get_roll");
    return query_readers::read_roll_query(body, *m_context);
}

model::per_modem<model::ul_message> GetRoll::load(const model::roll_query& query) const {
    model::per_modem<model::ul_message> messages;
    m_context->messages->ul().get_roll(messages, query);
    return messages;
}
