#pragma once

#include <QDateTime>
#include <QList>
#include <QString>
#include <QStringList>
#include <map>
#include <vector>

#include "model/meter_link.h"

namespace model {

constexpr int default_history_limit = 3000;
constexpr int max_history_limit = 300000;

// Records per modem, in ascending modem order; each list in the store's order.
template <class T>
using per_modem = std::map<int, std::vector<T>>;

// A roll query's "fill" asking for the newest `limit` records of the range instead of
// the oldest; they still come in ascending time order.
inline const char* const fill_latest = "last";

// Query of the uplink history ("roll").
struct roll_query {
    QList<int> modem_id;
    QDateTime from;
    QDateTime to;
    QStringList tag;
    int limit = default_history_limit;
    bool time_detected = false;  // the range applies to time_detected instead of timestamp
    QString fill;
};

// Query of stored values and events.
struct value_query {
    QList<int> modem_id;
    QDateTime from;
    QDateTime to;
    QStringList tag;
    QStringList obis_codes;
    int limit = default_history_limit;
    bool first_and_last = false;
    int step = 0;
    QString fill;
};

// Query of stored downlink messages.
struct dl_query {
    QList<int> modem_id;
    QDateTime from;
    QDateTime to;
    int limit = default_history_limit;
};

// One entry of the device registry.
struct device_record {
    QString protocol;
    QString hw_type;
    QStringList clients;
    // The meter's link-layer address and key (wireless M-Bus); empty when not registered.
    meter_link meter = {};
    bool operator==(const device_record& o) const {
        return protocol == o.protocol && hw_type == o.hw_type && clients == o.clients && meter == o.meter;
    }
};

}  // namespace model
