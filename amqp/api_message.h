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
    // Not part of the envelope: the publisher's user as the broker vouches for it (the
    // delivery's user_id property); empty when the publisher gave none.
    QString user_id;

    static api_message from_json(const QJsonObject& envelope);
};
