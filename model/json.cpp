#include <QJsonArray>
#include <QJsonValue>
#include <type_traits>

#include "model/json.h"

namespace model {

custom_query custom_query_from_json(const QJsonObject& o) {
    custom_query q;
    const QJsonObject query = o["query"].toObject();
    for (auto it = query.begin(); it != query.end(); ++it)
        q.query[it.key()] = it.value().toString();
    q.body = o["body"].toObject();
    q.type = o["type"].toString();
    q.instance = o["instance"].toString();
    for (const QJsonValue& id : o["modem_id"].toArray())
        q.modem_id.append(id.toInt(0));
    return q;
}

namespace {

QJsonObject parameter_json(const device_parameter& p) {
    QJsonObject o;
    o["comment"] = p.comment;
    o["name"] = p.name;
    o["div"] = p.div;
    o["mul"] = p.mul;
    o["unit"] = p.unit;
    o["write"] = p.write;
    o["calib"] = p.calib;
    o["primary"] = p.primary;
    o["min_value"] = p.min_value;
    o["max_value"] = p.max_value;
    return o;
}

QJsonObject event_json(const device_event_description& e) {
    QJsonObject o;
    o["comment"] = e.comment;
    if (!e.name.isEmpty())
        o["name"] = e.name;
    if (e.code != 0)
        o["code"] = e.code;
    return o;
}

QJsonObject control_json(const device_control& c) {
    QJsonObject o;
    o["comment"] = c.comment;
    o["name"] = c.name;
    return o;
}

}  // namespace

QJsonObject to_json(const device_description& d) {
    QJsonObject o;
    for (const device_description_entry& entry : d) {
        std::visit(
            [&o](const auto& item) {
                using T = std::decay_t<decltype(item)>;
                if constexpr (std::is_same_v<T, device_parameter>)
                    o[QStringLiteral("par%1").arg(item.number)] = parameter_json(item);
                else if constexpr (std::is_same_v<T, device_event_description>)
                    o[QStringLiteral("event%1").arg(item.number)] = event_json(item);
                else
                    o[QStringLiteral("ctrl%1").arg(item.number)] = control_json(item);
            },
            entry);
    }
    return o;
}

}  // namespace model
