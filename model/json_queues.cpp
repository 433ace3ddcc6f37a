#include <QJsonValue>
#include <array>
#include <cmath>
#include <limits>

#include "model/json.h"

namespace model {

namespace {

const std::array<const char*, 5> queue_status_names = {"NONE", "DONE", "WAIT", "FAIL", "OUTDATE"};

// Queue settings are whole numbers; a fractional number is truncated. A number no int
// holds is not taken (false), as a member of another type is not.
bool whole_number(const QJsonValue& v, int& out) {
    const double number = std::trunc(v.toDouble());
    if (!(number >= double(std::numeric_limits<int>::min()) &&
          number <= double(std::numeric_limits<int>::max())))
        return false;
    out = static_cast<int>(number);
    return true;
}

bool is_queue_number(const QString& key) {
    return key == "repeat" || key == "start_from" || key == "start_ts" || key == "ttl" || key == "timeout";
}

void set_queue_number(dl_queue& q, const QString& key, int value) {
    if (key == "repeat")
        q.repeat = value;
    else if (key == "start_from")
        q.start_from = value;
    else if (key == "start_ts")
        q.start_ts = value;
    else if (key == "ttl")
        q.ttl = value;
    else if (key == "timeout")
        q.timeout = value;
}

}  // namespace

QString dl_queue_status_name(int status) {
    if (status < 0 || status >= static_cast<int>(queue_status_names.size()))
        return QStringLiteral("UNKNOWN");
    return QString::fromLatin1(queue_status_names[static_cast<size_t>(status)]);
}

int dl_queue_status_from_name(const QString& name) {
    for (size_t i = 0; i < queue_status_names.size(); ++i) {
        if (name == QLatin1String(queue_status_names[i]))
            return static_cast<int>(i);
    }
    return NONE;
}

QJsonObject to_json(const dl_queue_entry& e) {
    QJsonObject o;
    o["data"] = e.data;
    o["db_id"] = e.db_id;
    o["repeat"] = e.repeat;
    o["status"] = dl_queue_status_name(e.status);
    o["type"] = e.type;
    o["dl_phy"] = e.dl_phy;
    o["station_id"] = e.station_id;
    o["frequency"] = e.frequency;
    o["f_ack"] = e.f_ack;
    o["f_system"] = e.f_system;
    return o;
}

QJsonObject to_json(const dl_queue& q) {
    QJsonObject o;
    for (const auto& [key, entry] : q.entries)
        o[key] = to_json(entry);
    o["repeat"] = q.repeat;
    o["start_from"] = q.start_from;
    o["start_ts"] = q.start_ts;
    o["ttl"] = q.ttl;
    o["lock"] = q.lock;
    o["status"] = dl_queue_status_name(q.status);
    o["timeout"] = q.timeout;
    return o;
}

QJsonObject to_json(const dl_queues& s) {
    QJsonObject dl;
    for (const auto& [name, queue] : s.dl)
        dl[name] = to_json(queue);
    QJsonObject o;
    o["dl"] = dl;
    o["status"] = dl_queue_status_name(s.status);
    o["lock"] = s.lock;
    return o;
}

dl_queue_entry dl_queue_entry_from_json(const QJsonObject& o) {
    dl_queue_entry e;
    e.data = o["data"].toObject();
    e.db_id = o["db_id"].toString();
    e.repeat = o["repeat"].toInt(0);
    e.status = dl_queue_status_from_name(o["status"].toString());
    e.type = o["type"].toString();
    e.dl_phy = o["dl_phy"].toInt(63);
    e.station_id = o["station_id"].toInt(0);
    e.frequency = o["frequency"].toInt(0);
    e.f_ack = o["f_ack"].toInt(1);
    e.f_system = o["f_system"].toInt(0);
    return e;
}

// Each member is judged by name and JSON type together: a setting with the wrong type is
// not a setting, and then only an object value makes it an entry.
dl_queue dl_queue_from_json(const QJsonObject& o) {
    dl_queue q;
    for (auto it = o.begin(); it != o.end(); ++it) {
        const QString& key = it.key();
        const QJsonValue value = it.value();
        int number = 0;
        if (is_queue_number(key) && value.isDouble()) {
            if (whole_number(value, number))
                set_queue_number(q, key, number);
        } else if (key == "lock" && value.isBool())
            q.lock = value.toBool();
        else if (key == "status" && value.isString())
            q.status = dl_queue_status_from_name(value.toString());
        else if (value.isObject())
            q.entries[key] = dl_queue_entry_from_json(value.toObject());
    }
    return q;
}

dl_queues dl_queues_from_json(const QJsonObject& o) {
    dl_queues s;
    const QJsonObject dl = o["dl"].toObject();
    for (auto it = dl.begin(); it != dl.end(); ++it)
        s.dl[it.key()] = dl_queue_from_json(it.value().toObject());
    s.status = dl_queue_status_from_name(o["status"].toString());
    s.lock = o["lock"].toBool(false);
    return s;
}

}  // namespace model
