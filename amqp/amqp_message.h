#pragma once

#include <QByteArray>
#include <QString>
#include <QVariantHash>
#include <cstdint>

namespace amqp {

// One delivery from the broker, assembled from its method, header and body frames.
struct message {
    uint16_t channel = 0;
    uint64_t delivery_tag = 0;  // as the broker numbered it on its channel
    bool redelivered = false;
    QString exchange;
    QString routing_key;
    QString consumer_tag;
    QString content_type;
    // The publisher's user as the broker checked it (RabbitMQ refuses a user_id that is
    // not the publishing connection's user); empty when the publisher left it out.
    QString user_id;
    // The headers table; nested tables are QVariantMap, arrays QVariantList (see
    // amqp_fields.h). A dead-lettered message has its history under "x-death".
    QVariantHash headers;
    QByteArray payload;
};

}  // namespace amqp
