#include "bench/uplink_bench.h"

#include <QCoreApplication>
#include <QProcess>
#include <QUuid>
#include <algorithm>
#include <csignal>

#include "bench/postgres_target.h"
#include "bench/proc_stats.h"
#include "bench/service_instance.h"
#include "bench/uplink_feed.h"
#include "bench/wait.h"

namespace bench {

namespace {

constexpr int first_modem = 100000;

QString token() {
    return QUuid::createUuid().toString(QUuid::Id128).left(10);
}

QString bindings_text(const amqp_bindings& bindings) {
    QStringList items;
    for (const auto& binding : bindings) {
        items << binding.first + ":" + binding.second;
    }
    return items.join(',');
}

}  // namespace

void register_fleet(service_instance& service, const uplink_feed& feed, const QStringList& clients) {
    for (int modem : feed.modem_ids()) {
        service.register_modem(modem, uplink_feed::protocol(), feed.hw_type(modem), clients);
    }
}

void use_store(service_instance& service, const bench_options& options, const QString& schema) {
    service.set_store_config(options.store_config);
    if (options.store_backend == "postgres") {
        service.use_postgres(options.pg_conninfo, schema.isEmpty() ? fresh_schema() : schema);
    }
}

namespace {

// The pass-through consumer as a process of its own, stopped with SIGTERM when done.
class passthrough_process {
public:
    passthrough_process() {
        m_process.setProcessChannelMode(QProcess::ForwardedErrorChannel);
        m_process.setStandardOutputFile(QProcess::nullDevice());
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert("QT_LOGGING_RULES", "*.debug=false");
        m_process.setProcessEnvironment(environment);
    }
    ~passthrough_process() {
        if (m_process.state() == QProcess::Running) {
            ::kill(pid_t(m_process.processId()), SIGTERM);
            m_process.waitForFinished(10000);
        }
    }
    passthrough_process(const passthrough_process&) = delete;
    passthrough_process& operator=(const passthrough_process&) = delete;

    pid_t start(const broker& target, const QString& queue, const amqp_bindings& bindings,
                const QString& profile_path, const QString& log_path) {
        m_process.start(QCoreApplication::applicationDirPath() + "/quillon-passthrough",
                        {"--url", target.url, "--vhost", target.vhost, "--queue", queue, "--bindings",
                         bindings_text(bindings), "--queue-options", "2", "--prefetch", "10", "--profile",
                         profile_path, "--log", log_path});
        return m_process.waitForStarted(10000) ? pid_t(m_process.processId()) : pid_t(0);
    }

private:
    QProcess m_process;
};

}  // namespace

uplink_bench::uplink_bench(logger& log, const broker& target, const bench_options& options)
    : m_log(log), m_target(target), m_options(options) {
    const QString run = token();
    QStringList keys;
    for (int i = 0; i < qMax(1, options.clients); ++i) {
        m_clients << QString("bench_client%1_%2").arg(i).arg(run);
        keys << m_clients.last() + ".#";
    }
    m_marker_key = m_clients.first() + ".bench.marker";
    m_admin = std::make_unique<broker_admin>(log, target);
    m_drain = std::make_unique<client_drain>(log, target, "norvik.api", keys);
    m_sender = std::make_unique<uplink_sender>(log, target);
}

uplink_bench::~uplink_bench() = default;

uplink_bench_result uplink_bench::run() {
    uplink_bench_result result;
    if (!m_admin->wait_ready() || !m_drain->wait_ready() || !m_sender->wait_ready()) {
        result.error = "no connection to the broker at " + mask_url_password(m_target.url);
        return result;
    }
    passthrough::publication_profile profile;
    if (!calibrate(profile, result.error)) {
        return result;
    }
    result.messages_per_uplink = profile.messages_per_uplink();
    result.bytes_per_uplink = profile.bytes_per_uplink();
    const int rounds = std::max(1, m_options.rounds);
    for (int round = 0; round < rounds; ++round) {
        if (m_options.passthrough) {
            result.passthrough = run_passthrough(profile);
            if (!result.passthrough.complete) {
                result.error = "pass-through: " + result.passthrough.error;
                return result;
            }
            result.passthrough_runs.push_back(result.passthrough);
        }
        run_service(result, round + 1 == rounds);
        if (!result.service.complete) {
            return result;
        }
    }
    result.pairs = pair_up(result.passthrough_runs, result.service_runs);
    if (result.latency.complete && m_options.passthrough) {
        result.passthrough_latency =
            run_passthrough_latency(profile, result.latency.offered_per_s, result.latency.sent);
        if (!result.passthrough_latency.complete) {
            result.error = "pass-through latency: " + result.passthrough_latency.error;
        }
    }
    return result;
}

bool uplink_bench::calibrate(passthrough::publication_profile& profile, QString& error) {
    service_instance service(m_target.url);
    use_store(service, m_options);
    uplink_feed feed(m_options.modems, first_modem);
    register_fleet(service, feed, m_clients);
    const rabbit_receiver_cfg queue = service.uplink_queue();
    if (!m_admin->declare(queue.queue, queue.queue_options, queue.bindings) ||
        !preload(*m_sender, *m_drain, m_marker_key, feed, uint64_t(m_options.sample),
                 service.uplink_route_key(), error)) {
        error = "calibration: " + (error.isEmpty() ? m_admin->error() : error);
        m_admin->remove(queue.queue);
        return false;
    }
    passthrough::uplink_publication current;
    int rolls = 0;
    throughput_meter meter(*m_drain, m_target.pid, m_clients.size());
    const throughput_result run = meter.run(
        uint64_t(m_options.sample), [&service] { return service.start() ? service.pid() : pid_t(0); },
        [&](const amqp::message& msg) {
            current.push_back(
                {passthrough::publication_profile::stem_of(msg.routing_key), int(msg.payload.size())});
            // An uplink's publication ends with the stored message for its last client.
            if (msg.routing_key.contains(QLatin1String(".ul_roll.")) && ++rolls == m_clients.size()) {
                rolls = 0;
                profile.add(std::move(current));
                current.clear();
            }
        });
    service.stop();
    m_admin->remove(queue.queue);
    m_admin->remove(service.command_queue());
    if (!run.complete) {
        error = "calibration: " + run.error + "\n" + service.log_tail();
    }
    return run.complete;
}

throughput_result uplink_bench::run_passthrough(const passthrough::publication_profile& profile) {
    const QString run = token();
    const QString queue = "bench_passthrough_" + run;
    const QString route_key = "ul_bench_pt_" + run;
    const amqp_bindings bindings{{"norvik.api", "*.0." + route_key + ".marl2.proto7.#"}};
    throughput_result result;
    uplink_feed feed(m_options.modems, first_modem);
    QString error;
    if (!m_admin->declare(queue, 2, bindings) ||
        !preload(*m_sender, *m_drain, m_marker_key, feed, m_options.uplinks, route_key, error)) {
        result.error = error.isEmpty() ? m_admin->error() : error;
        m_admin->remove(queue);  // a failed preload must not leave its uplinks in the broker
        return result;
    }
    const QString profile_path = m_dir.filePath("profile.json");
    profile.save(profile_path);
    passthrough_process consumer;
    throughput_meter meter(*m_drain, m_target.pid, m_clients.size());
    result = meter.run(m_options.uplinks, [&] {
        return consumer.start(m_target, queue, bindings, profile_path, m_dir.filePath("passthrough.log"));
    });
    m_admin->remove(queue);
    return result;
}

latency_result uplink_bench::run_passthrough_latency(const passthrough::publication_profile& profile,
                                                     double rate, uint64_t count) {
    const QString run = token();
    const QString queue = "bench_passthrough_" + run;
    const QString route_key = "ul_bench_pt_" + run;
    const amqp_bindings bindings{{"norvik.api", "*.0." + route_key + ".marl2.proto7.#"}};
    latency_result result;
    if (!m_admin->declare(queue, 2, bindings)) {
        result.error = m_admin->error();
        return result;
    }
    const QString profile_path = m_dir.filePath("profile.json");
    profile.save(profile_path);
    passthrough_process consumer;
    if (consumer.start(m_target, queue, bindings, profile_path, m_dir.filePath("passthrough-latency.log")) ==
        0) {
        result.error = "quillon-passthrough did not start";
    } else {
        // It declares its own bindings again on start; give it the moment to consume.
        pause_ms(1000);
        uplink_feed feed(m_options.modems, first_modem);
        result = measure_latency(*m_sender, *m_drain, feed, route_key, rate, count, m_clients.size());
    }
    m_admin->remove(queue);
    return result;
}

void uplink_bench::run_service(uplink_bench_result& result, bool with_latency) {
    service_instance service(m_target.url);
    use_store(service, m_options);
    uplink_feed feed(m_options.modems, first_modem);
    register_fleet(service, feed, m_clients);
    const rabbit_receiver_cfg queue = service.uplink_queue();
    QString error;
    if (!m_admin->declare(queue.queue, queue.queue_options, queue.bindings) ||
        !preload(*m_sender, *m_drain, m_marker_key, feed, m_options.uplinks, service.uplink_route_key(),
                 error)) {
        result.error = "service: " + (error.isEmpty() ? m_admin->error() : error);
        m_admin->remove(queue.queue);
        return;
    }
    throughput_meter meter(*m_drain, m_target.pid, m_clients.size());
    result.service =
        meter.run(m_options.uplinks, [&service] { return service.start() ? service.pid() : pid_t(0); });
    if (!result.service.complete) {
        result.error = "service: " + result.service.error + "\n" + service.log_tail();
    } else {
        result.service_runs.push_back(result.service);
    }
    if (result.service.complete && with_latency) {
        std::vector<double> rates;
        for (const auto& run : result.service_runs) {
            rates.push_back(run.uplinks_per_s);
        }
        const double rate = median(rates) / 2.0;
        const uint64_t count = qMax<uint64_t>(20, uint64_t(rate * m_options.latency_s));
        const double waited = run_queue_wait_seconds(service.pid());
        const int64_t started = now_us();
        result.latency = measure_latency(*m_sender, *m_drain, feed, service.uplink_route_key(), rate, count,
                                         m_clients.size());
        result.rss_after_latency_mib = resident_mib(service.pid());
        result.latency_wait_share = (run_queue_wait_seconds(service.pid()) - waited) /
                                    std::max(1e-9, double(now_us() - started) / 1e6);
        if (!result.latency.complete) {
            result.error = "latency: " + result.latency.error;
        }
    }
    service.stop();
    m_admin->remove(queue.queue);
    m_admin->remove(service.command_queue());
}

}  // namespace bench
