#include "amqp/api_message.h"

#include <QJsonArray>
#include <QJsonValue>

api_message api_message::from_json(const QJsonObject& envelope) {
    api_message message;
    message.msg_type = envelope.value("msg_type").toString();
    message.sender = envelope.value("sender").toString();
    // QUuid of anything that is not a UUID is the null UUID.
    message.cmd_id = QUuid(envelope.value("cmd_id").toString());
    const QJsonValue data = envelope.value("data");
    if (data.isObject()) {
        message.data = QJsonDocument(data.toObject());
    } else if (data.isArray()) {
        message.data = QJsonDocument(data.toArray());
    }
    return message;
}
