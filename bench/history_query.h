#pragma once

#include <QString>

#include "app/logger.h"
#include "bench/broker.h"

namespace bench {

struct history_query_result {
    bool ok = false;
    QString error;
    int queries = 0;
    int rows = 0;         // records in one reply
    double first_ms = 0;  // the first answered query, on a store the service just opened
    double p50_ms = 0;    // the queries after it
    double max_ms = 0;
};

// Runs the service on an existing store and times "get_eav_value" for one modem
// through the command API, from the publication of the command to the arrival of its
// response.
history_query_result time_history_queries(logger& log, const broker& target, broker_admin& admin,
                                          const QString& store_path, int modem, int queries, int limit);

}  // namespace bench
