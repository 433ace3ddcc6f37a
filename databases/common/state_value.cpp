#include "databases/common/state_value.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonParseError>
#include <QString>

namespace db_common {

namespace {

QJsonValue parse_text(const QByteArray& text) {
    // QJsonDocument only takes an object or an array at the top, so a scalar such as
    // 42 or "x" is parsed as the single element of an array.
    QJsonParseError error;
    const QJsonDocument wrapped = QJsonDocument::fromJson("[" + text + "]", &error);
    if (error.error == QJsonParseError::NoError && wrapped.isArray() && wrapped.array().size() == 1) {
        return wrapped.array().at(0);
    }
    return QJsonValue(QString::fromUtf8(text));
}

}  // namespace

QJsonValue state_value_json(const interfaces::state_value& value) {
    if (const auto* text = std::get_if<QByteArray>(&value)) {
        return parse_text(*text);
    }
    return std::get<QJsonValue>(value);
}

}  // namespace db_common
