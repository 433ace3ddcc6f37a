#include "metrics/metrics.h"

#include "metrics/text_format.h"

#include <algorithm>
#include <cmath>
#include <stdexcept>

namespace metrics {

namespace {
void atomic_add(std::atomic<double>& target, double by) {
    double current = target.load(std::memory_order_relaxed);
    while (!target.compare_exchange_weak(current, current + by, std::memory_order_relaxed)) {
    }
}
}  // namespace

void counter::inc(double by) {
    // A counter only goes up; a negative step would break every rate() over it.
    if (by > 0) {
        atomic_add(m_value, by);
    }
}

void gauge::inc(double by) {
    atomic_add(m_value, by);
}

histogram::histogram(std::vector<double> bounds)
    : m_bounds(std::move(bounds)), m_counts(m_bounds.size() + 1, 0) {
    if (!std::is_sorted(m_bounds.begin(), m_bounds.end())) {
        throw std::invalid_argument("histogram bounds must ascend");
    }
}

void histogram::observe(double value) {
    // A bucket counts the observations less than or equal to its bound.
    const std::size_t bucket =
        std::size_t(std::lower_bound(m_bounds.begin(), m_bounds.end(), value) - m_bounds.begin());
    std::lock_guard<std::mutex> lock(m_mutex);
    ++m_counts[bucket];
    m_sum += value;
}

histogram::snapshot histogram::read() const {
    snapshot out;
    out.bounds = m_bounds;
    std::vector<uint64_t> counts;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        counts = m_counts;
        out.sum = m_sum;
    }
    uint64_t running = 0;
    for (uint64_t c : counts) {
        running += c;
        out.cumulative.push_back(running);
    }
    out.count = running;
    return out;
}

std::vector<double> exponential_buckets(double start, double factor, int count) {
    std::vector<double> bounds;
    double bound = start;
    for (int i = 0; i < count; ++i) {
        bounds.push_back(bound);
        bound *= factor;
    }
    return bounds;
}

family_base::family_base(std::string name, std::string help, metric_type type,
                         std::vector<std::string> label_names)
    : m_name(std::move(name)), m_help(std::move(help)), m_type(type), m_label_names(std::move(label_names)) {}

label_pairs family_base::pairs(const std::vector<std::string>& values) const {
    label_pairs out;
    for (std::size_t i = 0; i < m_label_names.size() && i < values.size(); ++i) {
        out.emplace_back(m_label_names[i], values[i]);
    }
    return out;
}

family_snapshot family_base::collect() const {
    family_snapshot out{m_name, m_help, m_type, {}};
    for (const auto& values : label_sets()) {
        append_samples(values, out.samples);
    }
    return out;
}

template <>
void family<counter>::append_samples(const std::vector<std::string>& values, std::vector<sample>& out) const {
    out.push_back({"", pairs(values), child(values).value()});
}

template <>
void family<gauge>::append_samples(const std::vector<std::string>& values, std::vector<sample>& out) const {
    out.push_back({"", pairs(values), child(values).value()});
}

template <>
void family<histogram>::append_samples(const std::vector<std::string>& values,
                                       std::vector<sample>& out) const {
    const histogram::snapshot s = child(values).read();
    const label_pairs labels = pairs(values);
    for (std::size_t i = 0; i < s.cumulative.size(); ++i) {
        label_pairs with_le = labels;
        with_le.emplace_back("le", i < s.bounds.size() ? format_value(s.bounds[i]) : "+Inf");
        out.push_back({"_bucket", with_le, double(s.cumulative[i])});
    }
    out.push_back({"_sum", labels, s.sum});
    out.push_back({"_count", labels, double(s.count)});
}

family<counter>& registry::add_counter(const std::string& name, const std::string& help,
                                       std::vector<std::string> labels) {
    auto f = std::make_unique<family<counter>>(name, help, metric_type::counter, std::move(labels),
                                               [] { return std::make_unique<counter>(); });
    auto& ref = *f;
    std::lock_guard<std::mutex> lock(m_mutex);
    m_families.push_back(std::move(f));
    return ref;
}

family<gauge>& registry::add_gauge(const std::string& name, const std::string& help,
                                   std::vector<std::string> labels) {
    auto f = std::make_unique<family<gauge>>(name, help, metric_type::gauge, std::move(labels),
                                             [] { return std::make_unique<gauge>(); });
    auto& ref = *f;
    std::lock_guard<std::mutex> lock(m_mutex);
    m_families.push_back(std::move(f));
    return ref;
}

family<histogram>& registry::add_histogram(const std::string& name, const std::string& help,
                                           std::vector<double> bounds, std::vector<std::string> labels) {
    auto f = std::make_unique<family<histogram>>(name, help, metric_type::histogram, std::move(labels),
                                                 [bounds] { return std::make_unique<histogram>(bounds); });
    auto& ref = *f;
    std::lock_guard<std::mutex> lock(m_mutex);
    m_families.push_back(std::move(f));
    return ref;
}

void registry::add_collector(collector c) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_collectors.push_back(std::move(c));
}

std::vector<family_snapshot> registry::collect() const {
    std::vector<family_snapshot> out;
    std::lock_guard<std::mutex> lock(m_mutex);
    for (const auto& f : m_families) {
        out.push_back(f->collect());
    }
    for (const auto& c : m_collectors) {
        for (auto& s : c()) {
            out.push_back(std::move(s));
        }
    }
    return out;
}

}  // namespace metrics
