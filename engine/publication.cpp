#include "engine/publication.h"

#include <QJsonDocument>
#include <QUuid>

#include "model/json.h"
#include "model/json_text.h"

namespace publication {

QString fill_route(const QString& route_template, const QStringList& parts) {
    // The two templates hold %1 to %6 once each. Without a '%' in any part no substitution
    // can bring in a placeholder: then one pass gives the same text as the successive ones.
    bool plain = parts.size() == 6 && (route_template == QLatin1String(roll_template) ||
                                       route_template == QLatin1String(eav_template));
    int length = route_template.size();
    for (const auto& part : parts) {
        plain = plain && !part.contains(QLatin1Char('%'));
        length += part.size();
    }
    if (!plain) {
        QString route = route_template;
        for (const auto& part : parts) {
            route = route.arg(part);
        }
        return route;
    }
    QString route;
    route.reserve(length);
    const QChar* c = route_template.constData();
    const QChar* const end = c + route_template.size();
    while (c != end) {
        if (*c == QLatin1Char('%') && c + 1 != end && c[1] >= QLatin1Char('1') && c[1] <= QLatin1Char('6')) {
            route += parts[c[1].unicode() - '1'];
            c += 2;
        } else {
            route += *c++;
        }
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

QByteArray body(const QByteArray& record_json, const char* msg_type, bool wrap) {
    if (!wrap) {
        return record_json;
    }
    // The envelope's keys in their sorted order, as a QJsonObject writes them.
    const QByteArray cmd_id = QUuid::createUuid().toByteArray();
    QByteArray envelope;
    envelope.reserve(record_json.size() + cmd_id.size() + 64);
    envelope.append("{\"cmd_id\":\"");
    envelope.append(cmd_id);
    envelope.append("\",\"data\":");
    envelope.append(record_json);
    envelope.append(",\"msg_type\":");
    model::json_text_detail::append_string(envelope, QString::fromLatin1(msg_type));
    envelope.append('}');
    return envelope;
}

QByteArray body(const QJsonObject& record, const char* msg_type, bool wrap) {
    return body(QJsonDocument(record).toJson(QJsonDocument::Compact), msg_type, wrap);
}

namespace {
const char* const roll_type = "quillon_ul_client_roll";

QByteArray record_text(const model::eav_record& record) {
    if (const auto* event = std::get_if<model::dev_event>(&record)) {
        return model::json_text(*event);
    }
    return model::json_text(std::get<model::dev_value>(record));
}

const char* record_type(const model::eav_record& record) {
    return std::holds_alternative<model::dev_event>(record) ? "quillon_ul_client_eav_event"
                                                            : "quillon_ul_client_eav_value";
}

QByteArray record_body(const model::eav_record& record, bool wrap) {
    return body(record_text(record), record_type(record), wrap);
}

QString record_route(const model::ul_message& stored, const model::eav_record& record, const QString& client,
                     int index) {
    if (const auto* event = std::get_if<model::dev_event>(&record)) {
        return event_route(stored, *event, client, index);
    }
    return value_route(stored, std::get<model::dev_value>(record), client, index);
}
}  // namespace

namespace {
// The routes of one client's records: "client.index.ul_eav.hw_type." is the same for all of
// them and is written once. Only when no part holds a '%' (see fill_route); otherwise
// each route is filled by the successive substitutions.
class client_routes {
public:
    client_routes(const model::ul_message& stored, const QString& client, int index)
        : m_stored(stored), m_client(client), m_index(index) {
        m_plain = !client.contains(QLatin1Char('%')) && !stored.hw_type.contains(QLatin1Char('%'));
        if (m_plain) {
            m_eav_prefix.reserve(client.size() + stored.hw_type.size() + 24);
            m_eav_prefix.append(client).append(QLatin1Char('.')).append(QString::number(index));
            m_eav_prefix.append(QLatin1String(".ul_eav.")).append(stored.hw_type).append(QLatin1Char('.'));
        }
    }

    QString route(const model::eav_record& record) const {
        if (const auto* event = std::get_if<model::dev_event>(&record)) {
            if (!m_plain) {
                return event_route(m_stored, *event, m_client, m_index);
            }
            static const QString event_part = QStringLiteral("event");
            return joined(event_part, QString::number(event->event_code), event->modem_id);
        }
        const auto& value = std::get<model::dev_value>(record);
        if (!m_plain || value.tag.contains(QLatin1Char('%')) || value.obis_code.contains(QLatin1Char('%'))) {
            return value_route(m_stored, value, m_client, m_index);
        }
        return joined(value.tag, value.obis_code, value.modem_id);
    }

private:
    QString joined(const QString& fourth, const QString& fifth, int modem_id) const {
        QString route;
        route.reserve(m_eav_prefix.size() + fourth.size() + fifth.size() + 16);
        route.append(m_eav_prefix).append(fourth).append(QLatin1Char('.')).append(fifth);
        route.append(QLatin1Char('.')).append(QString::number(modem_id));
        return route;
    }

    const model::ul_message& m_stored;
    const QString& m_client;
    int m_index = 0;
    bool m_plain = false;
    QString m_eav_prefix;
};
}  // namespace

void publish_message(const model::ul_message& message, const QString& client, int index,
                     publication_sink& sink, bool wrap) {
    sink.publish(body(model::json_text(message), roll_type, wrap), roll_route(message, client, index),
                 mime_type);
}

void publish_record(const model::ul_message& stored, const model::eav_record& record, const QString& client,
                    int index, publication_sink& sink, bool wrap) {
    sink.publish(record_body(record, wrap), record_route(stored, record, client, index), mime_type);
}

void publish_uplink(const model::ul_message& stored, const model::eav_list& records,
                    const QStringList& clients, publication_sink& sink, bool wrap) {
    // Each record's text is written once; only a wrapped body differs per publication (a
    // fresh command id each time).
    std::vector<QByteArray> texts;
    texts.reserve(records.size());
    for (const auto& record : records) {
        texts.push_back(record_text(record));
    }
    const QByteArray roll_text = model::json_text(stored);
    for (int index = 0; index < clients.size(); ++index) {
        const QString& client = clients[index];
        const client_routes routes(stored, client, index);
        size_t n = 0;
        for (const auto& record : records) {
            sink.publish(body(texts[n++], record_type(record), wrap), routes.route(record), mime_type);
        }
        sink.publish(body(roll_text, roll_type, wrap), roll_route(stored, client, index), mime_type);
    }
}

}  // namespace publication
