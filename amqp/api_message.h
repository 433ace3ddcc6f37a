#pragma once

#include <QJsonDocument>
#include <QJsonObject>
#include <QString>
#include <QUuid>

// An incoming command envelope, parsed.
struct api_message {
    QUuid cmd_id;  // null when "cmd_id" is missing or not a UUID
    QString msg_type;
    QString sender;
    QJsonDocument data;  // object or array; null for anything else

    static api_message from_json(const QJsonObject& envelope);
};
