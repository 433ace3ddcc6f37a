#include "amqp/command_outcome.h"

#include "app/logger.h"

command_outcome command_outcome::answered(const QJsonObject& result) {
    command_outcome outcome;
    outcome.reply = result;
    outcome.keeps_writes = true;
    return outcome;
}

command_outcome command_outcome::failed(const caught_failure& failure) {
    command_outcome outcome;
    outcome.name = "error";
    outcome.replies = false;
    outcome.acknowledged = false;
    outcome.log_level = Error;
    outcome.log_text = "error while parse income message :" + failure.message();
    return outcome;
}

command_outcome command_outcome::unknown(const caught_failure& failure) {
    command_outcome outcome = failed(failure);
    outcome.name = "unknown";
    return outcome;
}

command_outcome command_outcome::store_unavailable(const QString& command, const QString& cmd_id,
                                                   const QString& why) {
    // Answered at once rather than requeued: the command queue keeps being consumed
    // during an outage (commands without the store still run), so a requeued command
    // would only come straight back.
    command_outcome outcome;
    outcome.name = "error";
    outcome.reply = QJsonObject{{"status", "fail"}, {"error", "store unavailable"}};
    outcome.log_level = Warning;
    outcome.log_text = "command " + command + " " + cmd_id + " not run: store unavailable (" + why + ")";
    return outcome;
}

command_outcome command_outcome::forbidden(const QString& command, const QString& user_id,
                                           const QString& sender) {
    // Never the body: it may hold what the sender must not see logged.
    command_outcome outcome;
    outcome.name = "forbidden";
    outcome.reply = QJsonObject{{"status", "forbidden"}};
    outcome.log_level = Warning;
    outcome.log_text = "command " + command + " from user \"" +
                       (user_id.isEmpty() ? QStringLiteral("(none)") : user_id) +
                       "\" refused: not allowed; sender key \"" + sender + "\"";
    return outcome;
}

command_outcome command_outcome::repeated(const QString& command, const QString& cmd_id, int runs) {
    command_outcome outcome;
    outcome.name = "repeated";
    outcome.replies = false;
    outcome.acknowledged = false;
    outcome.log_level = Error;
    outcome.log_text = "command " + command + " " + cmd_id + " delivered again after " +
                       QString::number(runs) +
                       " runs that could not be settled; rejected without running it again";
    return outcome;
}
