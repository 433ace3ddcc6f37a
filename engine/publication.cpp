#include "engine/publication.h"

#include <QJsonDocument>
#include <QUuid>

#include "model/json.h"

namespace publication {

QString fill_route(const QString& route_template, const QStringList& parts) {
    QString route = route_template;
    for (const auto& part : parts) {
        route = route.arg(part);
    }
    return route;
}

QString roll_route(const model::ul_message& message, const QString& client, int index) {
    return fill_route(roll_template, {client, QString::number(index), message.hw_type, message.tag, "null",
                                      QString::number(message.modem_id)});
}

QString event_route(const model::ul_message& stored, const model::dev_event& event, const QString& client,
                    int index) {
    return fill_route(eav_template, {client, QString::number(index), stored.hw_type, "event",
                                     QString::number(event.event_code), QString::number(event.modem_id)});
}

QString value_route(const model::ul_message& stored, const model::dev_value& value, const QString& client,
                    int index) {
    return fill_route(eav_template, {client, QString::number(index), stored.hw_type, value.tag,
                                     value.obis_code, QString::number(value.modem_id)});
}

QByteArray body(const QJsonObject& record, const char* msg_type, bool wrap) {
    if (!wrap) {
        return QJsonDocument(record).toJson(QJsonDocument::Compact);
    }
    QJsonObject envelope;
    envelope["msg_type"] = msg_type;
    envelope["cmd_id"] = QUuid::createUuid().toString();
    envelope["data"] = record;
    return QJsonDocument(envelope).toJson(QJsonDocument::Compact);
}

namespace {
const char* const roll_type = "quillon_ul_client_roll";

QByteArray record_body(const model::eav_record& record, bool wrap) {
    if (const auto* event = std::get_if<model::dev_event>(&record)) {
        return body(model::to_json(*event), "quillon_ul_client_eav_event", wrap);
    }
    return body(model::to_json(std::get<model::dev_value>(record)), "quillon_ul_client_eav_value", wrap);
}

QString record_route(const model::ul_message& stored, const model::eav_record& record, const QString& client,
                     int index) {
    if (const auto* event = std::get_if<model::dev_event>(&record)) {
        return event_route(stored, *event, client, index);
    }
    return value_route(stored, std::get<model::dev_value>(record), client, index);
}
}  // namespace

void publish_message(const model::ul_message& message, const QString& client, int index,
                     publication_sink& sink, bool wrap) {
    sink.publish(body(model::to_json(message), roll_type, wrap), roll_route(message, client, index));
}

void publish_record(const model::ul_message& stored, const model::eav_record& record, const QString& client,
                    int index, publication_sink& sink, bool wrap) {
    sink.publish(record_body(record, wrap), record_route(stored, record, client, index));
}

void publish_uplink(const model::ul_message& stored, const model::eav_list& records,
                    const QStringList& clients, publication_sink& sink, bool wrap) {
    // Unwrapped bodies are the same for every client: serialized once. A wrapped body
    // carries a fresh command id per publication.
    std::vector<QByteArray> bodies;
    QByteArray roll_body;
    if (!wrap) {
        bodies.reserve(records.size());
        for (const auto& record : records) {
            bodies.push_back(record_body(record, false));
        }
        roll_body = body(model::to_json(stored), roll_type, false);
    }
    for (int index = 0; index < clients.size(); ++index) {
        const QString& client = clients[index];
        size_t n = 0;
        for (const auto& record : records) {
            sink.publish(wrap ? record_body(record, true) : bodies[n++],
                         record_route(stored, record, client, index));
        }
        sink.publish(wrap ? body(model::to_json(stored), roll_type, true) : roll_body,
                     roll_route(stored, client, index));
    }
}

}  // namespace publication
