#include "databases/common/device_seed.h"

#include <QDebug>
#include <QJsonArray>
#include <QJsonValue>
#include <stdexcept>

namespace db_common {

model::device_record device_record_from_json(const QJsonObject& entry) {
    model::device_record record;
    record.protocol = entry.value("protocol").toString();
    record.hw_type = entry.value("hw_type").toString();
    for (const QJsonValue& client : entry.value("clients").toArray()) {
        if (!client.isString()) {
            qWarning() << "device seed: a client that is not a string is skipped:" << client;
            continue;
        }
        record.clients.append(client.toString());
    }
    record.meter = model::meter_link_from_json(entry);
    return record;
}

std::map<int, model::device_record> device_seed(const QJsonObject& configuration) {
    std::map<int, model::device_record> devices;
    const QJsonValue seed = configuration.value("devices");
    if (seed.isUndefined()) {
        return devices;
    }
    if (!seed.isObject()) {
        qWarning() << "device seed: \"devices\" is not an object and is ignored";
        return devices;
    }
    const QJsonObject entries = seed.toObject();
    for (auto it = entries.begin(); it != entries.end(); ++it) {
        bool ok = false;
        const int modem_id = it.key().toInt(&ok, 10);
        if (!ok) {
            qWarning() << "device seed: key" << it.key() << "is not a modem id; skipped";
            continue;
        }
        if (!it.value().isObject()) {
            qWarning() << "device seed: entry" << it.key() << "is not an object; skipped";
            continue;
        }
        try {
            devices[modem_id] = device_record_from_json(it.value().toObject());
        } catch (const std::invalid_argument& e) {
            // A meter whose key or address is wrong would store nothing but undecoded
            // telegrams: the store refuses to start instead.
            throw std::runtime_error(QString("device seed: modem %1: %2")
                                         .arg(it.key(), QString::fromUtf8(e.what()))
                                         .toStdString());
        }
    }
    return devices;
}

}  // namespace db_common
