#include "tools/watch/publication_line.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

namespace watch {

namespace {

enum class kind { value, event, roll, other };

kind kind_of_envelope(const QString& msg_type) {
    if (msg_type == "quillon_ul_client_eav_value") {
        return kind::value;
    }
    if (msg_type == "quillon_ul_client_eav_event") {
        return kind::event;
    }
    if (msg_type == "quillon_ul_client_roll") {
        return kind::roll;
    }
    return kind::other;
}

kind kind_of_record(const QJsonObject& record, const QString& routing_key) {
    if (record.contains("event_code")) {
        return kind::event;
    }
    if (record.contains("obis_code")) {
        return kind::value;
    }
    if (record.contains("parse_status") || routing_key.contains(".ul_roll.")) {
        return kind::roll;
    }
    return kind::other;
}

QString compact(const QJsonValue& value) {
    if (value.isString()) {
        return value.toString();
    }
    const QByteArray written = QJsonDocument(QJsonArray{value}).toJson(QJsonDocument::Compact);
    return QString::fromUtf8(written.mid(1, written.size() - 2));
}

QString modem_of(const QJsonObject& record, const QString& routing_key) {
    if (record.contains("modem_id")) {
        return compact(record.value("modem_id"));
    }
    return routing_key.section('.', -1);
}

QString what(kind k, const QJsonObject& record, const unit_table& units) {
    switch (k) {
        case kind::value: {
            QString text = record.value("obis_code").toString() + " = " + compact(record.value("value"));
            QString unit = record.value("unit").toString();
            if (unit.isEmpty()) {
                unit = units.unit_of(record.value("obis_code").toString());
            }
            return unit.isEmpty() ? text : text + " " + unit;
        }
        case kind::event:
            return QString("event %1: %2")
                .arg(compact(record.value("event_code")), record.value("message").toString());
        case kind::roll:
            return QString("roll tag %1, parse_status %2")
                .arg(record.value("tag").toString(), record.value("parse_status").toString());
        case kind::other:
            break;
    }
    return QString::fromUtf8(QJsonDocument(record).toJson(QJsonDocument::Compact));
}

}  // namespace

QString describe(const QByteArray& body, const QString& routing_key, const QDateTime& arrival,
                 const unit_table& units) {
    const QString head = arrival.toString("yyyy-MM-dd hh:mm:ss") + "  " + routing_key + "  ";
    const QJsonDocument document = QJsonDocument::fromJson(body);
    if (!document.isObject()) {
        return head + "(not a JSON object) " + QString::fromUtf8(body.left(200));
    }
    QJsonObject record = document.object();
    kind k = kind::other;
    if (record.contains("msg_type") && record.value("data").isObject()) {
        k = kind_of_envelope(record.value("msg_type").toString());
        record = record.value("data").toObject();
    }
    if (k == kind::other) {
        k = kind_of_record(record, routing_key);
    }
    return head + "modem " + modem_of(record, routing_key) + "  " + what(k, record, units);
}

}  // namespace watch
