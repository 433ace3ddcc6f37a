#include "commands/GetRollExtract.h"

#include "commands/command_context.h"
#include "commands/handler_support.h"
#include "commands/history_reply.h"
#include "commands/query_readers.h"

GetRollExtract::GetRollExtract(std::shared_ptr<command_context> context) : m_context(std::move(context)) {}

QJsonObject GetRollExtract::execute(const api_message& message) {
    const model::roll_query query = read_query(message);
    model::per_modem<model::ul_message> messages = load(query);
    return history_reply::consume(messages);
}

model::roll_query GetRollExtract::read_query(const api_message& message) const {
    const QJsonObject body = handler_support::command_body(message, *m_context, "get_roll_extract");
    return query_readers::read_roll_query(body, *m_context);
}

model::per_modem<model::ul_message> GetRollExtract::load(const model::roll_query& query) const {
    model::per_modem<model::ul_message> messages;
    m_context->driver->extract_roll(messages, query);
    return messages;
}
