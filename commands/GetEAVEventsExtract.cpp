#include "commands/GetEAVEventsExtract.h"

#include "commands/command_context.h"
#include "commands/handler_support.h"
#include "commands/history_reply.h"
#include "commands/query_readers.h"

GetEAVEventsExtract::GetEAVEventsExtract(std::shared_ptr<command_context> context)
    : m_context(std::move(context)) {}

QJsonObject GetEAVEventsExtract::execute(const api_message& message) {
    const model::value_query query = read_query(message);
    model::per_modem<model::dev_event> records = load(query);
    return history_reply::consume(records);
}

model::value_query GetEAVEventsExtract::read_query(const api_message& message) const {
    const QJsonObject body = handler_support::command_body(message, *m_context, "get_eav_extract_event");
    return query_readers::read_value_query(body, *m_context);
}

model::per_modem<model::dev_event> GetEAVEventsExtract::load(const model::value_query& query) const {
    model::per_modem<model::dev_event> records;
    m_context->driver->extract_events(records, query);
    return records;
}
