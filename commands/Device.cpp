#include "commands/Device.h"

#include "commands/handler_support.h"
#include "commands/keyed_reply.h"
#include "commands/query_readers.h"
#include "model/json.h"

Device::Device(std::shared_ptr<command_context> context) : m_context(std::move(context)) {}

QJsonObject Device::execute(const api_message& message) {
    const QJsonObject body = handler_support::command_body(message, *m_context, "device");
    const model::roll_query query = read_query(body);
    keyed_reply reply;
    for (int id : query.modem_id) {
        reply.insert(id, describe_modem(query, id));
    }
    return reply.take();
}

// Only the last stored uplink is wanted, whatever limit the client sent: one record,
// the newest of the range.
model::roll_query Device::read_query(QJsonObject body) const {
    body["limit"] = 1;
    model::roll_query query = query_readers::read_roll_query(body, *m_context);
    query.fill = model::fill_latest;
    return query;
}

QJsonObject Device::describe_modem(const model::roll_query& query, int modem_id) const {
    model::roll_query one = query;
    one.modem_id = QList<int>{modem_id};
    model::per_modem<model::ul_message> roll;
    m_context->messages->ul().get_roll(roll, one);

    QJsonObject description{{"supported", true}};
    const auto found = roll.find(modem_id);
    if (found != roll.end() && !found->second.empty()) {
        description["last_roll"] = model::to_json(found->second.front());
    }
    return description;
}
