#pragma once

#include <sys/types.h>
#include <QString>
#include <cstdint>

namespace bench {

// Figures of a running process read from /proc; 0 when it cannot be read.
double cpu_seconds(pid_t pid);  // user + system time so far
// Time that the process's threads were ready to run but waited for a processor (the
// run queue), summed over its threads; a large figure means the machine was busy.
double run_queue_wait_seconds(pid_t pid);
double resident_mib(pid_t pid);       // VmRSS
double peak_resident_mib(pid_t pid);  // VmHWM

// Monotonic time in microseconds, comparable between processes of the machine.
int64_t now_us();

// The first process whose command name is `comm` and whose command line contains
// `needle` (any such process when `needle` is empty); 0 when there is none or more
// than one matches an empty needle.
pid_t find_process(const QString& comm, const QString& needle = QString());

}  // namespace bench
