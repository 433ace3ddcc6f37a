#pragma once

#include <vector>

#include "bench/throughput_meter.h"

namespace bench {

// The pass-through and the service run in turn (A B A B A B), so a noisy interval of the
// machine spoils one pair rather than one side; each figure is the median over pairs.
struct pair_figures {
    std::vector<double> ratios;      // per pair: service / pass-through uplinks per second
    std::vector<double> cpu_ratios;  // per pair: service / pass-through consumer CPU per uplink
    double ratio = 0;                // medians; NaN where nothing was measured
    double cpu_ratio = 0;
    double passthrough_ups = 0;
    double service_ups = 0;
    double passthrough_cpu_ms = 0;  // consumer CPU ms per uplink
    double service_cpu_ms = 0;
};

// The median; of an even count the mean of the middle two; NaN when empty.
double median(std::vector<double> values);
// Consumer CPU milliseconds per uplink of one run; NaN for a run without uplinks.
double cpu_ms_per_uplink(const throughput_result& run);
// Pairs the i-th pass-through run with the i-th service run; service runs without a
// partner (no pass-through) count for the service's own medians only.
pair_figures pair_up(const std::vector<throughput_result>& passthrough,
                     const std::vector<throughput_result>& service);

}  // namespace bench
