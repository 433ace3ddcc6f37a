#include "metrics/process_metrics.h"

#include <dirent.h>
#include <sys/resource.h>
#include <unistd.h>

#include <fstream>

namespace metrics {

namespace {

family_snapshot single(const char* name, const char* help, metric_type type, double value) {
    return family_snapshot{name, help, type, {sample{"", {}, value}}};
}

// Open descriptors: the entries of /proc/self/fd, less the one that reads it.
int open_descriptors() {
    DIR* dir = opendir("/proc/self/fd");
    if (!dir) {
        return -1;
    }
    int count = 0;
    while (const dirent* entry = readdir(dir)) {
        if (entry->d_name[0] != '.') {
            ++count;
        }
    }
    closedir(dir);
    return count - 1;
}

}  // namespace

std::vector<family_snapshot> process_families(int64_t start_time) {
    std::vector<family_snapshot> out;
    rusage usage{};
    if (getrusage(RUSAGE_SELF, &usage) == 0) {
        const double cpu = double(usage.ru_utime.tv_sec) + double(usage.ru_utime.tv_usec) / 1e6 +
                           double(usage.ru_stime.tv_sec) + double(usage.ru_stime.tv_usec) / 1e6;
        out.push_back(single("process_cpu_seconds_total", "Total user and system CPU time spent in seconds.",
                             metric_type::counter, cpu));
    }
    // statm: total program size and resident set, in pages.
    std::ifstream statm("/proc/self/statm");
    double pages_total = 0;
    double pages_resident = 0;
    if (statm >> pages_total >> pages_resident) {
        const double page = double(sysconf(_SC_PAGESIZE));
        out.push_back(single("process_virtual_memory_bytes", "Virtual memory size in bytes.",
                             metric_type::gauge, pages_total * page));
        out.push_back(single("process_resident_memory_bytes", "Resident memory size in bytes.",
                             metric_type::gauge, pages_resident * page));
    }
    const int fds = open_descriptors();
    if (fds >= 0) {
        out.push_back(
            single("process_open_fds", "Number of open file descriptors.", metric_type::gauge, fds));
    }
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) == 0) {
        out.push_back(single("process_max_fds", "Maximum number of open file descriptors.",
                             metric_type::gauge,
                             limit.rlim_cur == RLIM_INFINITY ? -1.0 : double(limit.rlim_cur)));
    }
    out.push_back(single("process_start_time_seconds",
                         "Start time of the process since unix epoch in seconds.", metric_type::gauge,
                         double(start_time)));
    return out;
}

}  // namespace metrics
