// The text exposition format, with every expected text worked out by hand from the
// format's rules (cumulative buckets, le labels, escaping).
#include <gtest/gtest.h>

#include <QProcess>
#include <QStandardPaths>
#include <cmath>
#include <limits>

#include "metrics/metrics.h"
#include "metrics/service_metrics.h"
#include "metrics/text_format.h"

namespace {

TEST(TextFormat, HistogramBucketsAreCumulativeAndInclusive) {
    metrics::registry r;
    auto& h = r.add_histogram("job_seconds", "How long a job took.", {0.1, 0.5, 1}).with({});
    // 0.1 lies on a bound: it belongs to le="0.1". 2 is above every bound: only +Inf.
    for (double v : {0.05, 0.1, 0.3, 0.7, 2.0}) {
        h.observe(v);
    }
    EXPECT_EQ(metrics::write_text(r.collect()),
              "# HELP job_seconds How long a job took.\n"
              "# TYPE job_seconds histogram\n"
              "job_seconds_bucket{le=\"0.1\"} 2\n"
              "job_seconds_bucket{le=\"0.5\"} 3\n"
              "job_seconds_bucket{le=\"1\"} 4\n"
              "job_seconds_bucket{le=\"+Inf\"} 5\n"
              "job_seconds_sum 3.15\n"
              "job_seconds_count 5\n");
}

TEST(TextFormat, LabelledHistogramPutsLeAfterItsOwnLabels) {
    metrics::registry r;
    auto& f = r.add_histogram("op_seconds", "Ops.", {1}, {"operation"});
    f.with({"commit"}).observe(0.5);
    f.with({"commit"}).observe(0.5);
    EXPECT_EQ(metrics::write_text(r.collect()),
              "# HELP op_seconds Ops.\n"
              "# TYPE op_seconds histogram\n"
              "op_seconds_bucket{operation=\"commit\",le=\"1\"} 2\n"
              "op_seconds_bucket{operation=\"commit\",le=\"+Inf\"} 2\n"
              "op_seconds_sum{operation=\"commit\"} 1\n"
              "op_seconds_count{operation=\"commit\"} 2\n");
}

TEST(TextFormat, CountersAndGaugesWithLabelsInCreationOrderOfNames) {
    metrics::registry r;
    auto& c = r.add_counter("things_total", "Things.", {"kind", "result"});
    c.with({"b", "ok"}).inc();
    c.with({"a", "ok"}).inc(3);
    c.with({"a", "ok"}).inc(-5);  // ignored: a counter never goes down
    r.add_gauge("level", "Level.").with({}).set(-2.5);
    EXPECT_EQ(metrics::write_text(r.collect()),
              "# HELP things_total Things.\n"
              "# TYPE things_total counter\n"
              "things_total{kind=\"a\",result=\"ok\"} 3\n"
              "things_total{kind=\"b\",result=\"ok\"} 1\n"
              "# HELP level Level.\n"
              "# TYPE level gauge\n"
              "level -2.5\n");
}

TEST(TextFormat, FamilyWithoutSeriesIsLeftOut) {
    metrics::registry r;
    r.add_counter("unused_total", "Never touched.", {"x"});
    EXPECT_EQ(metrics::write_text(r.collect()), "");
}

TEST(TextFormat, LabelValuesAndHelpAreEscaped) {
    EXPECT_EQ(metrics::escape_label_value("a\"b\\c\nd"), "a\\\"b\\\\c\\nd");
    EXPECT_EQ(metrics::escape_label_value("plain é"), "plain é");
    // HELP escapes backslash and line feed, not the double quote.
    EXPECT_EQ(metrics::escape_help("say \"x\"\\\nnext"), "say \"x\"\\\\\\nnext");

    metrics::registry r;
    r.add_counter("odd_total", "Odd names.", {"name"}).with({"x\"y"}).inc();
    EXPECT_EQ(metrics::write_text(r.collect()),
              "# HELP odd_total Odd names.\n"
              "# TYPE odd_total counter\n"
              "odd_total{name=\"x\\\"y\"} 1\n");
}

TEST(TextFormat, ValuesReadBackExactly) {
    EXPECT_EQ(metrics::format_value(0), "0");
    EXPECT_EQ(metrics::format_value(1), "1");
    EXPECT_EQ(metrics::format_value(2.5), "2.5");
    EXPECT_EQ(metrics::format_value(0.005), "0.005");
    EXPECT_EQ(metrics::format_value(0.1 + 0.2), "0.30000000000000004");
    EXPECT_EQ(metrics::format_value(123456789012.0), "123456789012");
    EXPECT_EQ(metrics::format_value(std::numeric_limits<double>::infinity()), "+Inf");
    EXPECT_EQ(metrics::format_value(-std::numeric_limits<double>::infinity()), "-Inf");
    EXPECT_EQ(metrics::format_value(std::nan("")), "NaN");
}

TEST(Buckets, ExponentialBounds) {
    const std::vector<double> bounds = metrics::exponential_buckets(1, 2, 4);
    EXPECT_EQ(bounds, (std::vector<double>{1, 2, 4, 8}));
    EXPECT_THROW(metrics::histogram({2, 1}), std::invalid_argument);
}

// The service's own catalogue, as a scrape shows it right after start, is accepted by
// Prometheus's own checker (Debian package "prometheus").
TEST(TextFormat, ServiceCatalogPassesPromtool) {
    const QString promtool = QStandardPaths::findExecutable("promtool");
    if (promtool.isEmpty()) {
        GTEST_SKIP() << "promtool is not installed (scripts/install-deps)";
    }
    service_metrics m;
    service_metrics::build_facts facts;
    facts.version = "1.1.43";
    facts.protocol = "proto7";
    facts.instance = "marl2";
    facts.start_time = 1900000000;
    m.set_build(facts);
    m.count_command("get_info", "ok", 0.002);
    m.uplink_seconds().observe(0.003);
    m.batch_size().observe(3);
    const std::string text = metrics::write_text(m.registry().collect());

    QProcess check;
    check.start(promtool, {"check", "metrics"});
    ASSERT_TRUE(check.waitForStarted());
    check.write(QByteArray::fromStdString(text));
    check.closeWriteChannel();
    ASSERT_TRUE(check.waitForFinished(30000));
    EXPECT_EQ(check.exitCode(), 0) << check.readAllStandardOutput().toStdString()
                                   << check.readAllStandardError().toStdString() << "\n"
                                   << text;
}

TEST(Health, NamesWhatIsDown) {
    service_metrics m;
    // Before any link came up, all four are down.
    service_metrics::health_report report = m.health();
    EXPECT_FALSE(report.healthy);
    EXPECT_EQ(report.body.toStdString(),
              "{\"amqp\":{\"clients\":\"down\",\"commands_in\":\"down\",\"commands_out\":\"down\","
              "\"uplinks\":\"down\"},\"down\":[\"amqp uplinks\",\"amqp clients\",\"amqp commands_in\","
              "\"amqp commands_out\"],\"status\":\"down\",\"store\":\"up\"}");

    for (auto link : {service_metrics::amqp_link::uplinks, service_metrics::amqp_link::clients,
                      service_metrics::amqp_link::commands_in, service_metrics::amqp_link::commands_out}) {
        m.set_link(link, true);
    }
    report = m.health();
    EXPECT_TRUE(report.healthy);
    EXPECT_EQ(
        report.body.toStdString(),
        "{\"amqp\":{\"clients\":\"up\",\"commands_in\":\"up\",\"commands_out\":\"up\",\"uplinks\":\"up\"},"
        "\"down\":[],\"status\":\"up\",\"store\":\"up\"}");

    m.set_store_down("disk I/O error");
    m.set_link(service_metrics::amqp_link::clients, false);
    report = m.health();
    EXPECT_FALSE(report.healthy);
    EXPECT_EQ(
        report.body.toStdString(),
        "{\"amqp\":{\"clients\":\"down\",\"commands_in\":\"up\",\"commands_out\":\"up\",\"uplinks\":\"up\"},"
        "\"down\":[\"amqp clients\",\"store\"],\"status\":\"down\",\"store\":\"down\","
        "\"store_error\":\"disk I/O error\"}");

    m.set_store_up();
    m.set_link(service_metrics::amqp_link::clients, true);
    EXPECT_TRUE(m.health().healthy);
}

}  // namespace
