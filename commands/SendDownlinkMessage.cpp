#include "commands/SendDownlinkMessage.h"

#include <stdexcept>

#include "commands/handler_support.h"
#include "commands/keyed_reply.h"
#include "commands/query_readers.h"
#include "model/json.h"

SendDownlinkMessage::SendDownlinkMessage(std::shared_ptr<command_context> context)
    : m_context(std::move(context)) {}

QJsonObject SendDownlinkMessage::execute(const api_message& message) {
    const QJsonObject body = handler_support::command_body(message, *m_context, "send_dl_msg");
    const model::dl_message request = read_request(body);
    if (!body.contains("modem_id") || !body.contains("data")) {
        return handler_support::fail_reply();
    }
    return send_to_modems(request, body);
}

model::dl_message SendDownlinkMessage::read_request(const QJsonObject& body) const {
    model::dl_message request = model::dl_message_from_request(body);
    // The reader takes a status outside the enumeration as PENDING; the log says why.
    const QJsonValue status = body.value("status");
    if (status.isDouble() && request.dl_status == model::PENDING && status.toDouble() != 0) {
        handler_support::log_error(
            *m_context, QString("send_dl_msg: \"status\" %1 is not a dl status (0 to 3), PENDING taken")
                            .arg(status.toDouble(), 0, 'g', 17));
    }
    if (request.timeout == 0 || request.timeout > max_timeout) {
        request.timeout = max_timeout;
    }
    return request;
}

QJsonObject SendDownlinkMessage::send_to_modem(const model::dl_message& request) const {
    try {
        return m_context->engine->sendDlmessage(request);
    } catch (const downlink_refused& e) {
        // Only this modem's downlink could not be built; store failures still end the command.
        const QString why = QString::fromStdString(e.what());
        handler_support::log_error(*m_context,
                                   QString("send_dl_msg: modem %1: %2").arg(request.modem_id).arg(why));
        return QJsonObject{{"ok", false}, {"error", why}};
    }
}

QJsonObject SendDownlinkMessage::send_to_modems(model::dl_message request, const QJsonObject& body) const {
    const QList<int> modems = query_readers::owned_modem_ids(body.value("modem_id"), *m_context);
    if (!modems.isEmpty() && !m_context->engine) {
        throw std::runtime_error("send_dl_msg: no engine to send downlinks through");
    }
    keyed_reply reply;
    for (int id : modems) {
        request.modem_id = id;
        reply.insert(id, send_to_modem(request));
    }
    return reply.take();
}
