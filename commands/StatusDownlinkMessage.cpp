#include "commands/StatusDownlinkMessage.h"

#include <QJsonArray>

#include "app/caught_failure.h"
#include "commands/handler_support.h"
#include "interfaces/IStoreLink.h"
#include "model/json.h"

StatusDownlinkMessage::StatusDownlinkMessage(std::shared_ptr<command_context> context)
    : m_context(std::move(context)) {}

QJsonObject StatusDownlinkMessage::execute(const api_message& message) {
    const QJsonObject body = handler_support::command_body(message, *m_context, "status_dl_msg");
    if (!body.contains("db_id")) {
        return handler_support::fail_reply();
    }
    QJsonObject reply;
    for (const QJsonValue& element : body.value("db_id").toArray()) {
        const QString db_id = element.toString();
        reply[db_id] = lookup(db_id);
    }
    return reply;
}

// The message's JSON form, or the text the store threw for an id it does not know. A
// store whose server is away fails the whole command: that is no answer about this id.
QJsonValue StatusDownlinkMessage::lookup(const QString& db_id) const {
    try {
        return model::to_json(m_context->messages->dl().get(db_id));
    } catch (const interfaces::store_unavailable&) {
        throw;
    } catch (...) {
        return caught_failure::current().message();
    }
}
