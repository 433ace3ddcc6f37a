#pragma once

#include <string>
#include <vector>

#include "metrics/metrics.h"

// The Prometheus text exposition format, version 0.0.4.
namespace metrics {

inline constexpr const char* text_content_type = "text/plain; version=0.0.4; charset=utf-8";

// A sample value or a bucket bound: the shortest text that reads back as the same double;
// "+Inf", "-Inf" and "NaN" for the special values.
std::string format_value(double value);
// A label value between double quotes: backslash, double quote and line feed escaped.
std::string escape_label_value(const std::string& value);
// A HELP text: backslash and line feed escaped.
std::string escape_help(const std::string& text);

// HELP and TYPE lines, then every sample of each family; families without samples are
// left out entirely.
std::string write_text(const std::vector<family_snapshot>& families);

}  // namespace metrics
