#include "commands/handler_support.h"

#include <stdexcept>

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

QJsonObject with_std_errors(const std::function<QJsonObject()>& step) {
    try {
        return step();
    } catch (const QString& text) {
        throw std::runtime_error(text.toStdString());
    }
}

}  // namespace handler_support
