#include "metrics/text_format.h"

#include <charconv>
#include <cmath>

namespace metrics {

namespace {
const char* type_word(metric_type type) {
    switch (type) {
        case metric_type::counter:
            return "counter";
        case metric_type::gauge:
            return "gauge";
        case metric_type::histogram:
            return "histogram";
    }
    return "untyped";
}
}  // namespace

std::string format_value(double value) {
    if (std::isnan(value)) {
        return "NaN";
    }
    if (std::isinf(value)) {
        return value > 0 ? "+Inf" : "-Inf";
    }
    char buffer[64];
    const auto result = std::to_chars(buffer, buffer + sizeof buffer, value);
    return std::string(buffer, result.ptr);
}

std::string escape_label_value(const std::string& value) {
    std::string out;
    out.reserve(value.size());
    for (char c : value) {
        switch (c) {
            case '\\':
                out += "\\\\";
                break;
            case '"':
                out += "\\\"";
                break;
            case '\n':
                out += "\\n";
                break;
            default:
                out += c;
        }
    }
    return out;
}

std::string escape_help(const std::string& text) {
    std::string out;
    out.reserve(text.size());
    for (char c : text) {
        if (c == '\\') {
            out += "\\\\";
        } else if (c == '\n') {
            out += "\\n";
        } else {
            out += c;
        }
    }
    return out;
}

std::string write_text(const std::vector<family_snapshot>& families) {
    std::string out;
    for (const auto& family : families) {
        if (family.samples.empty()) {
            continue;
        }
        out += "# HELP " + family.name + " " + escape_help(family.help) + "\n";
        out += "# TYPE " + family.name + " " + type_word(family.type) + "\n";
        for (const auto& s : family.samples) {
            out += family.name + s.suffix;
            if (!s.labels.empty()) {
                out += '{';
                for (std::size_t i = 0; i < s.labels.size(); ++i) {
                    if (i > 0) {
                        out += ',';
                    }
                    out += s.labels[i].first + "=\"" + escape_label_value(s.labels[i].second) + "\"";
                }
                out += '}';
            }
            out += ' ' + format_value(s.value) + '\n';
        }
    }
    return out;
}

}  // namespace metrics
