#include "commands/dl_queue_settings.h"

#include <cmath>
#include <limits>

namespace dl_queue_settings {

bool read_truncated(const QJsonValue& value, int& out) {
    if (!value.isDouble()) {
        return false;
    }
    const double number = std::trunc(value.toDouble());
    if (!std::isfinite(number) || number < double(std::numeric_limits<int>::min()) ||
        number > double(std::numeric_limits<int>::max())) {
        return false;
    }
    out = int(number);
    return true;
}

bool is_setting(const QString& key) {
    static const QStringList settings = {"repeat", "start_from", "start_ts", "timeout", "lock", "ttl"};
    return settings.contains(key);
}

namespace {

void apply_ttl(model::dl_queue& queue, const QJsonValue& value, ttl_form ttl) {
    if (ttl == ttl_form::seconds) {
        read_truncated(value, queue.ttl);
    } else if (value.isBool()) {
        queue.ttl = value.toBool() ? 1 : 0;
    }
}

}  // namespace

void apply(model::dl_queue& queue, const QString& key, const QJsonValue& value, ttl_form ttl) {
    if (key == "repeat") {
        read_truncated(value, queue.repeat);
    } else if (key == "start_from") {
        read_truncated(value, queue.start_from);
    } else if (key == "start_ts") {
        read_truncated(value, queue.start_ts);
    } else if (key == "timeout") {
        read_truncated(value, queue.timeout);
    } else if (key == "lock" && value.isBool()) {
        queue.lock = value.toBool();
    } else if (key == "ttl") {
        apply_ttl(queue, value, ttl);
    }
}

void update_entry(model::dl_queue_entry& entry, const QJsonObject& fields) {
    if (fields.value("data").isObject()) {
        entry.data = fields.value("data").toObject();
    }
    if (fields.value("type").isString()) {
        entry.type = fields.value("type").toString();
    }
    read_truncated(fields.value("dl_phy"), entry.dl_phy);
    read_truncated(fields.value("frequency"), entry.frequency);
    read_truncated(fields.value("station_id"), entry.station_id);
    read_truncated(fields.value("f_ack"), entry.f_ack);
    read_truncated(fields.value("f_system"), entry.f_system);
    read_truncated(fields.value("repeat"), entry.repeat);
}

model::dl_queue_entry new_entry(const QJsonObject& fields) {
    model::dl_queue_entry entry;
    entry.data = fields.value("data").toObject();
    entry.type = fields.value("type").toString("typical");
    entry.dl_phy = 0;
    entry.frequency = 0;
    entry.station_id = 0;
    entry.f_ack = 0;
    entry.f_system = 0;
    read_truncated(fields.value("dl_phy"), entry.dl_phy);
    read_truncated(fields.value("frequency"), entry.frequency);
    read_truncated(fields.value("station_id"), entry.station_id);
    read_truncated(fields.value("f_ack"), entry.f_ack);
    read_truncated(fields.value("f_system"), entry.f_system);
    return entry;
}

}  // namespace dl_queue_settings
