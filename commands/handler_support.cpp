#include "commands/handler_support.h"

namespace handler_support {

void log_error(const command_context& context, const QString& text) {
    if (context.log) {
        log_line(*context.log, Error) << text;
    }
}

QJsonObject command_body(const api_message& message, const command_context& context, const char* command) {
    if (message.data.isArray()) {
        log_error(context, QString("%1: the command body is not a JSON object").arg(command));
    }
    return message.data.object();
}

QJsonObject fail_reply() {
    return QJsonObject{{"status", "fail"}};
}

}  // namespace handler_support
