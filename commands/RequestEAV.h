#pragma once

#include <QJsonObject>
#include <QStringList>
#include <memory>
#include <vector>

#include "commands/ICommandHandler.h"
#include "commands/command_context.h"
#include "commands/handler_support.h"
#include "commands/modem_ok_reply.h"
#include "commands/query_readers.h"
#include "commands/republication.h"
#include "model/queries.h"
#include "model/records.h"

// "request_eav_value" (T = model::dev_value) and "request_eav_event"
// (T = model::dev_event): publishes the stored records of the owned modems of the
// query again to each client of their modem; the reply confirms each modem with "ok".
template <class T>
class RequestEAV : public ICommandHandler {
public:
    explicit RequestEAV(std::shared_ptr<command_context> context) : m_context(std::move(context)) {}

    QJsonObject execute(const api_message& message) override {
        const model::value_query query = read_query(message);
        if (!query.modem_id.isEmpty()) {
            publish(load(query));
        }
        return modem_ok_reply(query.modem_id);
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

    void publish(const model::per_modem<T>& records) const {
        for (const auto& [modem_id, modem_records] : records) {
            publish_modem(modem_id, modem_records);
        }
    }

    void publish_modem(int modem_id, const std::vector<T>& records) const {
        const QStringList clients = republication::clients_of(*m_context, modem_id);
        model::ul_message stored = republication::stored_message_of(*m_context, modem_id);
        for (const T& record : records) {
            stored.modem_id = record.modem_id;
            const model::eav_record published(record);
            for (int index = 0; index < clients.size(); ++index) {
                m_context->engine->publish_record(stored, published, clients[index], index,
                                                  republication::wrap);
            }
        }
    }

    std::shared_ptr<command_context> m_context;
};

template <>
const char* RequestEAV<model::dev_value>::command_name();
template <>
const char* RequestEAV<model::dev_event>::command_name();
template <>
model::per_modem<model::dev_value> RequestEAV<model::dev_value>::load(const model::value_query& query) const;
template <>
model::per_modem<model::dev_event> RequestEAV<model::dev_event>::load(const model::value_query& query) const;
