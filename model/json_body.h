#pragma once

#include <QByteArray>
#include <QJsonObject>

namespace model {

// A delivery body as the JSON object it holds: an empty object when the body is not JSON
// or not an object at the top. A member named twice in one object takes its last value.
QJsonObject object_of_body(const QByteArray& body);

namespace json_body_detail {
// The body without every member that a later member of the same name in the same object
// replaces; the body itself when no name repeats. Qt's parser never frees a replaced
// array or object, and of many members of one name it may keep another than the last.
QByteArray without_replaced_values(const QByteArray& body);
}  // namespace json_body_detail

}  // namespace model
