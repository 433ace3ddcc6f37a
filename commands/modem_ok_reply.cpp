#include "commands/modem_ok_reply.h"

#include <QString>

QJsonObject modem_ok_reply(const QList<int>& modem_ids) {
    QJsonObject reply;
    for (int id : modem_ids) {
        reply.insert(QString::number(id), QStringLiteral("ok"));
    }
    return reply;
}
