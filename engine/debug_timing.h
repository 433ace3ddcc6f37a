#pragma once

#include <QElapsedTimer>
#include <QString>

// Timing lines on Qt's debug output, enabled by a non-empty QQUILLON_DEBUG.
namespace debug_timing {

bool enabled();
// Writes format (holding %1) with the milliseconds elapsed since `started`.
void report(const char* format, const QElapsedTimer& started);

}  // namespace debug_timing
