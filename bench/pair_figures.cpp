#include "bench/pair_figures.h"

#include <algorithm>
#include <cmath>

namespace bench {

double median(std::vector<double> values) {
    if (values.empty()) {
        return NAN;
    }
    std::sort(values.begin(), values.end());
    const std::size_t middle = values.size() / 2;
    return values.size() % 2 == 1 ? values[middle] : (values[middle - 1] + values[middle]) / 2.0;
}

double cpu_ms_per_uplink(const throughput_result& run) {
    return run.uplinks > 0 ? run.consumer_cpu_s * 1000.0 / double(run.uplinks) : NAN;
}

pair_figures pair_up(const std::vector<throughput_result>& passthrough,
                     const std::vector<throughput_result>& service) {
    pair_figures out;
    std::vector<double> p_ups, s_ups, p_cpu, s_cpu;
    for (const auto& run : passthrough) {
        p_ups.push_back(run.uplinks_per_s);
        p_cpu.push_back(cpu_ms_per_uplink(run));
    }
    for (const auto& run : service) {
        s_ups.push_back(run.uplinks_per_s);
        s_cpu.push_back(cpu_ms_per_uplink(run));
    }
    const std::size_t pairs = std::min(passthrough.size(), service.size());
    for (std::size_t i = 0; i < pairs; ++i) {
        out.ratios.push_back(p_ups[i] > 0 ? s_ups[i] / p_ups[i] : NAN);
        out.cpu_ratios.push_back(p_cpu[i] > 0 ? s_cpu[i] / p_cpu[i] : NAN);
    }
    out.ratio = median(out.ratios);
    out.cpu_ratio = median(out.cpu_ratios);
    out.passthrough_ups = median(p_ups);
    out.service_ups = median(s_ups);
    out.passthrough_cpu_ms = median(p_cpu);
    out.service_cpu_ms = median(s_cpu);
    return out;
}

}  // namespace bench
