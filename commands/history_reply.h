#pragma once

#include <QJsonArray>
#include <QJsonObject>
#include <QString>
#include <utility>
#include <vector>

#include "commands/keyed_reply.h"
#include "model/json.h"
#include "model/queries.h"

// The reply of the history commands: one key per modem (decimal id, ascending) holding
// a JSON array of the modem's records in their JSON form.
//
// Replies can hold up to 300000 records, so the records are consumed while the reply is
// built: each record is moved out of the store's result just before it is converted,
// and each modem's list is released once its array is complete. At any time the
// memory held is the part of the result not yet converted plus the JSON built so far.
namespace history_reply {

template <class T>
QJsonArray consume_into_array(std::vector<T>& records) {
    QJsonArray array;
    for (T& slot : records) {
        const T record = std::move(slot);
        array.append(model::to_json(record));
    }
    std::vector<T>().swap(records);
    return array;
}

template <class T>
QJsonObject consume(model::per_modem<T>& records) {
    keyed_reply reply;
    while (!records.empty()) {
        auto modem = records.extract(records.begin());
        reply.insert(modem.key(), consume_into_array(modem.mapped()));
    }
    return reply.take();
}

}  // namespace history_reply
