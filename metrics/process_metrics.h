#pragma once

#include <cstdint>
#include <vector>

#include "metrics/metrics.h"

namespace metrics {

// The process's own figures under their customary names (process_resident_memory_bytes,
// process_cpu_seconds_total, process_open_fds, process_max_fds,
// process_virtual_memory_bytes, process_start_time_seconds), read from the kernel at each
// scrape. `start_time` is the process's start in seconds since the epoch.
std::vector<family_snapshot> process_families(int64_t start_time);

}  // namespace metrics
