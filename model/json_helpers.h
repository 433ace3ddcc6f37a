#pragma once

#include <QByteArray>
#include <QDateTime>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QJsonValue>
#include <QString>
#include <QVariant>
#include <limits>

// Conversions shared by the record converters; not part of the model's public API.
namespace model::json_detail {

inline QJsonValue secs(const QDateTime& t) {
    return QJsonValue(static_cast<qint64>(t.toSecsSinceEpoch()));
}

// Seconds read as a 64-bit number; anything that is not a JSON number reads as 0, and so
// does a number whose milliseconds (QDateTime's unit) no 64-bit number holds.
inline qint64 secs_of(const QJsonValue& v) {
    constexpr double limit = double(std::numeric_limits<qint64>::max() / 1000);
    const double secs = v.isDouble() ? v.toDouble() : 0.0;
    return -limit < secs && secs < limit ? static_cast<qint64>(secs) : 0;
}

inline QString hex(const QByteArray& bytes) {
    return QString::fromLatin1(bytes.toHex());
}

// fromHex skips every character that is not a hex digit.
inline QByteArray from_hex(const QJsonValue& v) {
    return QByteArray::fromHex(v.toString().toLocal8Bit());
}

// A null document has no variant form and therefore writes as JSON null. Objects and
// arrays are taken over as they are (a round trip through QVariant writes the same
// JSON, at several times the cost).
inline QJsonValue document_value(const QJsonDocument& d) {
    if (d.isObject()) {
        return QJsonValue(d.object());
    }
    if (d.isArray()) {
        return QJsonValue(d.array());
    }
    return QJsonValue::fromVariant(d.toVariant());
}

}  // namespace model::json_detail
