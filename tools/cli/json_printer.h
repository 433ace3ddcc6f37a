#pragma once

#include <QJsonValue>
#include <QString>

namespace cli {

// JSON indented by four blanks as QJsonDocument indents it, but with empty objects and
// arrays on one line ({} and []). With colours, ANSI escape sequences mark keys,
// strings, numbers and the literals true, false and null.
QString format_json(const QJsonValue& value, bool colours);

}  // namespace cli
