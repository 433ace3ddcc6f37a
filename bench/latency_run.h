#pragma once

#include <QString>
#include <cstdint>

#include "bench/client_drain.h"
#include "bench/uplink_feed.h"
#include "bench/uplink_sender.h"

namespace bench {

struct latency_result {
    bool complete = false;
    QString error;
    double offered_per_s = 0;
    uint64_t sent = 0;
    uint64_t received = 0;
    uint64_t out_of_order = 0;  // stored messages of another modem than the oldest open uplink
    double p50_ms = 0;
    double p99_ms = 0;
    double max_ms = 0;
};

// Offers uplinks at a steady rate to a running consumer and measures, per uplink, the
// time from its publication to the arrival of its last client message (its stored
// message for its last client, which is published last). The consumer handles uplinks
// in order, so every `clients` stored messages close the oldest uplink sent.
latency_result measure_latency(uplink_sender& sender, client_drain& drain, uplink_feed& feed,
                               const QString& route_key, double rate_per_s, uint64_t count, int clients = 1);

}  // namespace bench
