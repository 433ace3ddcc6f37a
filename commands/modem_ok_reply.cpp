#include "commands/modem_ok_reply.h"

#include <QString>

#include "commands/keyed_reply.h"

QJsonObject modem_ok_reply(const QList<int>& modem_ids) {
    keyed_reply reply;
    for (int id : modem_ids) {
        reply.insert(id, QStringLiteral("ok"));
    }
    return reply.take();
}
