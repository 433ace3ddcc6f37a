#pragma once

#include <QJsonObject>
#include <memory>

#include "commands/ICommandHandler.h"
#include "commands/command_context.h"
#include "commands/handler_support.h"
#include "commands/history_reply.h"
#include "commands/query_readers.h"
#include "commands/step_thinning.h"
#include "model/queries.h"
#include "model/records.h"

// "get_eav_value" (T = model::dev_value) and "get_eav_event" (T = model::dev_event):
// the stored records of the owned modems of the query, thinned by "step" unless
// "first_and_last" is set, per modem in ascending order.
template <class T>
class GetEAV : public ICommandHandler {
public:
    explicit GetEAV(std::shared_ptr<command_context> context) : m_context(std::move(context)) {}

    QJsonObject execute(const api_message& message) override {
        const model::value_query query = read_query(message);
        model::per_modem<T> records = load(query);
        step_thinning::thin(records, query);
        return history_reply::consume(records);
    }

    // The command name, for diagnostics.
    static const char* command_name();

private:
    model::value_query read_query(const api_message& message) const {
        const QJsonObject body = handler_support::command_body(message, *m_context, command_name());
        return query_readers::read_value_query(body, *m_context);
    }

    // The store operation of the record type.
    model::per_modem<T> load(const model::value_query& query) const;

    std::shared_ptr<command_context> m_context;
};

template <>
const char* GetEAV<model::dev_value>::command_name();
template <>
const char* GetEAV<model::dev_event>::command_name();
template <>
model::per_modem<model::dev_value> GetEAV<model::dev_value>::load(const model::value_query& query) const;
template <>
model::per_modem<model::dev_event> GetEAV<model::dev_event>::load(const model::value_query& query) const;
