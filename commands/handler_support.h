#pragma once

#include <QJsonObject>
#include <QString>

#include "amqp/api_message.h"
#include "commands/command_context.h"

// Helpers every command handler shares.
namespace handler_support {

// Writes one Error line when the context carries a log.
void log_error(const command_context& context, const QString& text);

// The command's body as an object. Anything else (an array, a scalar) reads as an empty
// object; an array is reported with an Error line naming the command.
QJsonObject command_body(const api_message& message, const command_context& context, const char* command);

// {"status": "fail"}: the answer to a request that lacks a mandatory key.
QJsonObject fail_reply();

}  // namespace handler_support
