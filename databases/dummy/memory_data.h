#pragma once

#include <QJsonObject>
#include <map>
#include <memory>
#include <vector>

#include "model/dl_queues.h"
#include "model/queries.h"
#include "model/records.h"

// Everything one in-memory database holds. Record lists are kept in the order of saving.
struct memory_data {
    std::vector<model::ul_message> uplinks;
    std::vector<model::dl_message> downlinks;
    std::vector<model::dev_value> values;
    std::vector<model::dev_event> events;
    std::map<int, model::device_record> devices;

    std::map<int, QJsonObject> states;
    std::map<int, int> marks;
    std::map<int, int> open_changes;
    std::map<int, model::dl_queues> queues;
    // Per-modem lock depth; shared with the guards so that a guard may outlive the data.
    std::shared_ptr<std::map<int, int>> locks = std::make_shared<std::map<int, int>>();
};
