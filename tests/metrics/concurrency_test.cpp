// Scrapes on another thread while the event loop writes: every scrape must show a state
// that could have existed (no torn histogram, counters that never go back).
#include <gtest/gtest.h>

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QTimer>
#include <atomic>
#include <cmath>
#include <map>
#include <string>
#include <thread>

#include "metrics/metrics.h"
#include "metrics/text_format.h"

namespace {

struct scraped {
    std::map<std::string, double> values;  // by name+suffix+labels
};

scraped parse(const std::string& text) {
    scraped out;
    std::size_t start = 0;
    while (start < text.size()) {
        const std::size_t end = text.find('\n', start);
        const std::string line = text.substr(start, end - start);
        start = end + 1;
        if (line.empty() || line[0] == '#') {
            continue;
        }
        const std::size_t space = line.rfind(' ');
        out.values[line.substr(0, space)] = std::stod(line.substr(space + 1));
    }
    return out;
}

TEST(Concurrency, ScrapesWhileTheLoopWritesSeeConsistentValues) {
    int argc = 1;
    char name[] = "metrics_test";
    char* argv[] = {name, nullptr};
    QCoreApplication app(argc, argv);

    metrics::registry r;
    auto& requests = r.add_counter("requests_total", "Requests.", {"kind"});
    auto& latency = r.add_histogram("latency_seconds", "Latency.", {0.1, 0.5, 1}).with({});
    auto& level = r.add_gauge("level", "Level.").with({});

    std::atomic<bool> stop{false};
    std::atomic<int> scrapes{0};
    std::string failure;
    std::thread scraper([&] {
        double last_count = 0;
        double last_ok = 0;
        while (!stop.load() && failure.empty()) {
            const scraped s = parse(metrics::write_text(r.collect()));
            ++scrapes;
            const auto get = [&](const std::string& key) {
                const auto it = s.values.find(key);
                return it == s.values.end() ? 0.0 : it->second;
            };
            const double b1 = get("latency_seconds_bucket{le=\"0.1\"}");
            const double b2 = get("latency_seconds_bucket{le=\"0.5\"}");
            const double b3 = get("latency_seconds_bucket{le=\"1\"}");
            const double inf = get("latency_seconds_bucket{le=\"+Inf\"}");
            const double count = get("latency_seconds_count");
            const double sum = get("latency_seconds_sum");
            const double ok = get("requests_total{kind=\"ok\"}");
            const double lvl = get("level");
            // Observations alternate 0.25 and 0.75: buckets, count and sum follow exactly.
            if (!(b1 == 0 && b2 <= b3 && b3 == inf && inf == count)) {
                failure = "torn histogram: " + std::to_string(b2) + " " + std::to_string(b3) + " " +
                          std::to_string(inf) + " " + std::to_string(count);
            } else if (b2 != std::ceil(count / 2) || sum != 0.25 * b2 + 0.75 * (count - b2)) {
                failure = "histogram sum or buckets off: count " + std::to_string(count) + " sum " +
                          std::to_string(sum) + " le0.5 " + std::to_string(b2);
            } else if (count < last_count || ok < last_ok) {
                failure = "a counter went back";
            } else if (lvl != 0 && lvl != 1e9) {
                failure = "torn gauge " + std::to_string(lvl);
            }
            last_count = count;
            last_ok = ok;
        }
    });

    // A second reader takes the histogram's own snapshots as fast as it can.
    std::atomic<long> snapshots{0};
    std::string snapshot_failure;
    std::thread hammer([&] {
        while (!stop.load() && snapshot_failure.empty()) {
            const metrics::histogram::snapshot s = latency.read();
            const uint64_t low = s.cumulative[1];  // observations of 0.25
            if (s.cumulative[3] != s.count || low != (s.count + 1) / 2 ||
                s.sum != 0.25 * double(low) + 0.75 * double(s.count - low)) {
                snapshot_failure = "torn snapshot: count " + std::to_string(s.count) + " low " +
                                   std::to_string(low) + " sum " + std::to_string(s.sum);
            }
            ++snapshots;
        }
    });

    // The loop's side: timers write, as the engine does, and add label sets as they come.
    int written = 0;
    QElapsedTimer running;
    running.start();
    QTimer writer;
    QObject::connect(&writer, &QTimer::timeout, [&] {
        for (int i = 0; i < 200; ++i, ++written) {
            latency.observe(written % 2 == 0 ? 0.25 : 0.75);
            requests.with({"ok"}).inc();
            requests.with({"kind" + std::to_string(written % 50)}).inc();
            level.set(written % 2 == 0 ? 1e9 : 0);
        }
        if (written >= 100000 && scrapes.load() >= 50 && running.elapsed() >= 1000) {
            app.quit();
        }
    });
    writer.start(0);
    QTimer::singleShot(60000, &app, &QCoreApplication::quit);
    app.exec();
    stop = true;
    scraper.join();
    hammer.join();

    EXPECT_EQ(failure, "");
    EXPECT_EQ(snapshot_failure, "");
    EXPECT_GT(snapshots.load(), 1000);
    EXPECT_GE(written, 100000);
    EXPECT_GE(scrapes.load(), 50);
    const metrics::histogram::snapshot end = latency.read();
    EXPECT_EQ(end.count, uint64_t(written));
    EXPECT_EQ(requests.with({"ok"}).value(), double(written));
}

}  // namespace
