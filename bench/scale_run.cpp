#include "bench/scale_run.h"

#include <QUuid>

#include "bench/postgres_target.h"
#include "bench/service_instance.h"
#include "bench/uplink_bench.h"
#include "bench/uplink_feed.h"

namespace bench {

namespace {
constexpr int first_modem = 300000;

QString token() {
    return QUuid::createUuid().toString(QUuid::Id128).left(10);
}
}  // namespace

scale_run::scale_run(logger& log, const broker& target, const bench_options& options)
    : m_log(log), m_target(target), m_options(options), m_client("bench_scale_" + token()) {
    m_admin = std::make_unique<broker_admin>(log, target);
    m_drain = std::make_unique<client_drain>(log, target, "norvik.api", QStringList{m_client + ".#"});
    m_sender = std::make_unique<uplink_sender>(log, target);
}

scale_run::~scale_run() = default;

std::vector<scale_point> scale_run::run() {
    std::vector<scale_point> points;
    if (!m_admin->wait_ready() || !m_drain->wait_ready() || !m_sender->wait_ready()) {
        scale_point failed;
        failed.instances = 1;
        failed.result.error = "no connection to the broker at " + mask_url_password(m_target.url);
        points.push_back(failed);
        return points;
    }
    for (int n = 1; n <= m_options.instances; ++n) {
        points.push_back(measure(n));
    }
    return points;
}

scale_point scale_run::measure(int instances) {
    scale_point point;
    point.instances = instances;
    const QString balancer_key = "bench_balancer_" + token();
    const QString schema = fresh_schema();  // one database for all of them (PostgreSQL)
    uplink_feed feed(m_options.modems, first_modem);
    std::vector<std::unique_ptr<service_instance>> services;
    std::vector<QString> queues;
    for (int position = 0; position < instances; ++position) {
        auto service = std::make_unique<service_instance>(m_target.url);
        service->set_instance(instances, position);
        service->set("GENERAL_SETTINGS", "BALANCER_ENABLED", "true");
        service->set("GENERAL_SETTINGS", "BALANCER_ROUTE_KEY", balancer_key);
        use_store(*service, m_options, schema);
        register_fleet(*service, feed, {m_client});
        const rabbit_receiver_cfg queue = service->uplink_queue();
        queues.push_back(queue.queue);
        if (!m_admin->declare(queue.queue, queue.queue_options, queue.bindings)) {
            point.result.error = "declaring " + queue.queue + ": " + m_admin->error();
            for (const QString& name : queues) {
                m_admin->remove(name);
            }
            return point;
        }
        services.push_back(std::move(service));
    }
    QString error;
    const auto owner_key = [&](const QJsonObject& uplink) {
        const int modem = uplink.value("modem_id").toInt();
        return QString("%1.%2.%3.%4.%5")
            .arg(balancer_key, uplink_feed::instance(), uplink_feed::protocol())
            .arg(modem % instances)
            .arg(instances);
    };
    if (!preload(*m_sender, *m_drain, m_client + ".bench.marker", feed, m_options.uplinks, owner_key,
                 error)) {
        point.result.error = error;
    } else {
        throughput_meter meter(*m_drain, m_target.pid, 1);
        // The processor figures are those of the first instance; the rate is all of them.
        point.result = meter.run(m_options.uplinks, [&services] {
            pid_t first = 0;
            for (auto& service : services) {
                if (!service->start()) {
                    return pid_t(0);
                }
                first = first ? first : service->pid();
            }
            return first;
        });
        if (!point.result.complete && point.result.error.isEmpty()) {
            point.result.error = "the run did not complete";
        }
    }
    for (auto& service : services) {
        service->stop();
        m_admin->remove(service->command_queue());
    }
    for (const QString& name : queues) {
        m_admin->remove(name);
    }
    return point;
}

}  // namespace bench
