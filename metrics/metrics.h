#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

// The service's own measurements: counters, gauges and histograms with fixed buckets,
// grouped into labelled families in a registry.
//
// Values are written on the event-loop thread and read by a scrape on another thread at
// any moment: counters and gauges are atomics, a histogram copies itself under a lock of
// its own that its observe() holds for a few instructions. Children of a family are
// created once per label set and never move, so a writer keeps the reference it got.
namespace metrics {

using label_pairs = std::vector<std::pair<std::string, std::string>>;

// One line of the exposition: family name plus suffix ("_bucket", "_sum", ...), labels, value.
struct sample {
    std::string suffix;
    label_pairs labels;
    double value = 0;
};

enum class metric_type { counter, gauge, histogram };

// What a family holds at one moment, ready to be written out.
struct family_snapshot {
    std::string name;
    std::string help;
    metric_type type = metric_type::gauge;
    std::vector<sample> samples;
};

class counter {
public:
    void inc(double by = 1);
    double value() const { return m_value.load(std::memory_order_relaxed); }

private:
    std::atomic<double> m_value{0};
};

class gauge {
public:
    void set(double value) { m_value.store(value, std::memory_order_relaxed); }
    void inc(double by = 1);
    void dec(double by = 1) { inc(-by); }
    double value() const { return m_value.load(std::memory_order_relaxed); }

private:
    std::atomic<double> m_value{0};
};

class histogram {
public:
    // Upper bounds in ascending order; the +Inf bucket is implicit.
    explicit histogram(std::vector<double> bounds);

    void observe(double value);

    struct snapshot {
        std::vector<double> bounds;
        std::vector<uint64_t> cumulative;  // one per bound, then +Inf (== count)
        double sum = 0;
        uint64_t count = 0;
    };
    snapshot read() const;

private:
    const std::vector<double> m_bounds;
    mutable std::mutex m_mutex;
    std::vector<uint64_t> m_counts;  // per bucket, not cumulative; the last is above every bound
    double m_sum = 0;
};

// Bucket bounds: `count` bounds from `start`, each `factor` times the one before.
std::vector<double> exponential_buckets(double start, double factor, int count);

class family_base {
public:
    family_base(std::string name, std::string help, metric_type type, std::vector<std::string> label_names);
    virtual ~family_base() = default;
    family_base(const family_base&) = delete;
    family_base& operator=(const family_base&) = delete;

    const std::string& name() const { return m_name; }
    family_snapshot collect() const;

protected:
    label_pairs pairs(const std::vector<std::string>& values) const;
    virtual void append_samples(const std::vector<std::string>& values, std::vector<sample>& out) const = 0;
    virtual std::vector<std::vector<std::string>> label_sets() const = 0;

    const std::string m_name;
    const std::string m_help;
    const metric_type m_type;
    const std::vector<std::string> m_label_names;
    mutable std::mutex m_mutex;  // guards the children's map, not their values
};

template <class Metric>
class family : public family_base {
public:
    using maker = std::function<std::unique_ptr<Metric>()>;
    family(std::string name, std::string help, metric_type type, std::vector<std::string> label_names,
           maker make)
        : family_base(std::move(name), std::move(help), type, std::move(label_names)),
          m_make(std::move(make)) {}

    // The child for these label values (in the order of the label names), made on first use.
    Metric& with(const std::vector<std::string>& values) {
        std::lock_guard<std::mutex> lock(m_mutex);
        auto& child = m_children[values];
        if (!child) {
            child = m_make();
        }
        return *child;
    }

protected:
    std::vector<std::vector<std::string>> label_sets() const override {
        std::lock_guard<std::mutex> lock(m_mutex);
        std::vector<std::vector<std::string>> out;
        for (const auto& entry : m_children) {
            out.push_back(entry.first);
        }
        return out;
    }
    void append_samples(const std::vector<std::string>& values, std::vector<sample>& out) const override;

private:
    const Metric& child(const std::vector<std::string>& values) const {
        std::lock_guard<std::mutex> lock(m_mutex);
        return *m_children.at(values);
    }

    maker m_make;
    std::map<std::vector<std::string>, std::unique_ptr<Metric>> m_children;
};

template <>
void family<counter>::append_samples(const std::vector<std::string>& values, std::vector<sample>& out) const;
template <>
void family<gauge>::append_samples(const std::vector<std::string>& values, std::vector<sample>& out) const;
template <>
void family<histogram>::append_samples(const std::vector<std::string>& values,
                                       std::vector<sample>& out) const;

// Families in the order they were added, plus collectors that compute samples at scrape
// time (process figures). Families are added before scraping starts.
class registry {
public:
    registry() = default;
    registry(const registry&) = delete;
    registry& operator=(const registry&) = delete;

    family<counter>& add_counter(const std::string& name, const std::string& help,
                                 std::vector<std::string> labels = {});
    family<gauge>& add_gauge(const std::string& name, const std::string& help,
                             std::vector<std::string> labels = {});
    family<histogram>& add_histogram(const std::string& name, const std::string& help,
                                     std::vector<double> bounds, std::vector<std::string> labels = {});
    using collector = std::function<std::vector<family_snapshot>()>;
    void add_collector(collector c);

    std::vector<family_snapshot> collect() const;

private:
    mutable std::mutex m_mutex;
    std::vector<std::unique_ptr<family_base>> m_families;
    std::vector<collector> m_collectors;
};

}  // namespace metrics
