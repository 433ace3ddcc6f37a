#pragma once

#include <QJsonObject>
#include <QString>

#include "app/caught_failure.h"

// How serving one command ended, decided in one place by the command client: whether a
// reply goes back and what it holds, whether the delivery is acknowledged or rejected,
// the line the log gets, and the name the command observer is told. A command's writes
// are kept only when it ran to its end ("ok"): the unit runner undoes them when its
// execution throws.
struct command_outcome {
    const char* name = "ok";   // "ok", "error", "forbidden", "unknown", "repeated"
    bool replies = true;       // a response goes to the sender
    QJsonObject reply;         // its "data"
    bool acknowledged = true;  // else rejected without requeue
    int log_level = 0;         // Off: no line
    QString log_text;
    bool keeps_writes = false;  // what the command wrote is committed

    // The handler's result, sent back as it is.
    static command_outcome answered(const QJsonObject& result);
    // The handler, or the factory for an unknown name, threw: logged, rejected, no reply.
    static command_outcome failed(const caught_failure& failure);
    static command_outcome unknown(const caught_failure& failure);
    // The store's server is away: answered at once, nothing kept.
    static command_outcome store_unavailable(const QString& command, const QString& cmd_id,
                                             const QString& why);
    // The sender may not run it: answered {"status": "forbidden"} and acknowledged.
    static command_outcome forbidden(const QString& command, const QString& user_id, const QString& sender);
    // Delivered again after `runs` runs that could not be settled: not run a third time.
    static command_outcome repeated(const QString& command, const QString& cmd_id, int runs);
};
