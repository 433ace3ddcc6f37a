#include "bench/faults/fault_run.h"

#include <QElapsedTimer>
#include <QThread>
#include <QUuid>
#include <algorithm>

#include "bench/faults/confirmed_sender.h"
#include "bench/faults/injectors.h"

namespace faults {

namespace {

// Every run's rejected uplinks go to this exchange (the policy below names it); each
// run reads them from a queue of its own, bound with the run's routing key.
const QString dead_letter_exchange = QStringLiteral("quillon.faults.rejected");
const QString dead_letter_policy = QStringLiteral("quillon-faults");
const QString uplink_queue_prefix = QStringLiteral("faults_ul_");
constexpr size_t batch_size = 50;
constexpr int max_examples = 10;

double seconds(const QElapsedTimer& clock) {
    return clock.elapsed() / 1000.0;
}

}  // namespace

fault_run::fault_run(const faults_options& options, QTextStream& progress)
    : m_options(options),
      m_progress(progress),
      m_feed(options.modems, 1),
      m_run(QUuid::createUuid().toString(QUuid::Id128).left(10)) {
    m_report.options = options;
}

fault_run::~fault_run() = default;

bool fault_run::open_cluster() {
    m_progress << "quillon-faults: starting the three-node cluster..." << Qt::endl;
    if (!m_control.cluster_script({"start"})) {
        m_error = "the private cluster did not start: " + m_control.error();
        return false;
    }
    const QString url = m_control.cluster_url(1);
    m_leader_url = m_control.cluster_url(2);
    if (url.isEmpty() || m_leader_url.isEmpty()) {
        m_error = "cannot read the cluster's URLs: " + m_control.error();
        return false;
    }
    return bench::open_broker(url, m_broker, m_error);
}

bool fault_run::declare_uplink_queue(const rabbit_receiver_cfg& queue) {
    if (!m_options.cluster) {
        return m_admin->declare_queue(m_uplink_queue);
    }
    amqp::broker_link leader(m_leader_url, m_broker.vhost, false);
    if (!leader.open(30000) || !leader.declare_queue(m_uplink_queue, true, queue.arguments)) {
        m_error = "cannot declare the uplink queue on cluster node 2: " + leader.error();
        return false;
    }
    return true;
}

bool fault_run::set_up() {
    if (m_options.cluster ? !open_cluster() : !bench::open_broker(QString(), m_broker, m_error)) {
        return false;
    }
    m_admin = std::make_unique<amqp::broker_link>(m_broker.url, m_broker.vhost, false);
    m_sender_link = std::make_unique<amqp::broker_link>(m_broker.url, m_broker.vhost, true);
    if (!m_admin->open(30000) || !m_sender_link->open(30000)) {
        m_error = "cannot reach the broker: " + m_admin->error() + m_sender_link->error();
        return false;
    }
    m_service = std::make_unique<bench::service_instance>(m_broker.url);
    if (m_options.keep) {
        m_service->keep_files();
        m_report.service_dir = m_service->working_dir();
    }
    m_store_path = m_service->working_dir() + "/quillon.db";
    // The store's warnings under faults would bury the tool's own lines.
    m_service->set_error_file(m_service->working_dir() + "/quillon.stderr");
    m_client_exchange = "faults.clients." + m_run;
    m_rejected_queue = "faults_rejected_" + m_run;
    // The service adds its protocol, instance and position to this name.
    m_service->set("AMQP_UL_SETTINGS", "R_QUEUE", uplink_queue_prefix + m_run);
    m_service->set("AMQP_UL_CLIENT_SETTINGS", "R_EXCHANGE", m_client_exchange);
    if (m_options.cluster) {
        m_service->set("AMQP_UL_SETTINGS", "R_QUEUE_TYPE", "quorum");
    }
    for (const int modem : m_feed.modem_ids()) {
        m_service->register_modem(modem, bench::uplink_feed::protocol(), m_feed.hw_type(modem), {"faults"});
    }
    const rabbit_receiver_cfg queue = m_service->uplink_queue();
    m_route_key = m_service->uplink_route_key();
    m_uplink_queue = queue.queue;
    const QVariantHash expected_arguments =
        m_options.cluster ? QVariantHash{{"x-queue-type", "quorum"}} : QVariantHash{};
    if (queue.bindings.isEmpty() || queue.queue_options != 2 || queue.arguments != expected_arguments) {
        m_error = m_options.cluster ? "the service's uplink queue is not a durable quorum queue with bindings"
                                    : "the service's uplink queue is not a plain durable queue with bindings";
        return false;
    }
    m_uplink_exchange = queue.bindings.first().first;

    // The tool's queues exist before the service starts, so that nothing sent or rejected
    // early goes unrouted; all are durable, to outlive broker restarts.
    bool ready = m_admin->declare_exchange(dead_letter_exchange, "topic") &&
                 m_admin->declare_queue(m_rejected_queue) &&
                 m_admin->bind_queue(m_rejected_queue, dead_letter_exchange, "#." + m_route_key + ".#") &&
                 m_admin->declare_exchange(m_client_exchange, "topic") && declare_uplink_queue(queue);
    for (const auto& binding : queue.bindings) {
        ready = ready && m_admin->bind_queue(m_uplink_queue, binding.first, binding.second);
    }
    if (!ready) {
        m_error = "cannot declare the run's queues and exchanges: " + m_admin->error();
        return false;
    }
    m_progress << "quillon-faults: dead-letter policy..." << Qt::endl;
    if (!m_control.dead_letter(dead_letter_policy, "^" + uplink_queue_prefix, dead_letter_exchange)) {
        m_error = "cannot set the dead-letter policy: " + m_control.error();
        return false;
    }
    if (!m_service->start()) {
        m_error = "the service did not start";
        return false;
    }
    injectors start({m_service.get(), m_uplink_queue, m_client_exchange, m_store_path}, *m_admin, m_control,
                    m_report.faults, m_report.problems);
    if (!start.wait_consuming("start")) {
        m_error = "the service does not consume its uplink queue: " + m_service->log_tail(1000);
        return false;
    }
    return true;
}

std::vector<fault_run::planned> fault_run::plan() const {
    std::vector<planned> events;
    const uint64_t n = m_options.uplinks;
    auto spread = [&](int count, fault what) {
        for (int i = 0; i < count; ++i) {
            events.push_back({uint64_t(i + 1) * n / uint64_t(count + 1), what});
        }
    };
    spread(m_options.broker_restarts, fault::broker_restart);
    spread(m_options.closes, fault::close);
    spread(m_options.kills, fault::kill);
    spread(m_options.exchange_drops, fault::exchange_drop);
    if (m_options.store_full) {
        events.push_back({n / 3, fault::store_full});
        events.push_back({2 * n / 3, fault::store_space});
    }
    if (m_options.node_stop) {
        events.push_back({n / 3, fault::node_stop});
        events.push_back({2 * n / 3, fault::node_start});
    }
    std::stable_sort(events.begin(), events.end(),
                     [](const planned& a, const planned& b) { return a.at < b.at; });
    return events;
}

bool fault_run::stream() {
    injectors inject({m_service.get(), m_uplink_queue, m_client_exchange, m_store_path}, *m_admin, m_control,
                     m_report.faults, m_report.problems);
    confirmed_sender sender(*m_sender_link, m_uplink_exchange, m_book);
    const std::vector<planned> events = plan();
    size_t next_event = 0;
    uint64_t produced = 0;
    QElapsedTimer clock;
    clock.start();
    qint64 paused_ms = 0;  // time spent injecting: the rate counts without it
    while (produced < m_options.uplinks) {
        while (next_event < events.size() && events[next_event].at <= produced) {
            const qint64 started = clock.elapsed();
            switch (events[next_event++].what) {
                case fault::broker_restart:
                    m_progress << "quillon-faults: broker restart at uplink " << produced << Qt::endl;
                    inject.restart_broker();
                    break;
                case fault::close:
                    m_progress << "quillon-faults: forced closes at uplink " << produced << Qt::endl;
                    inject.close_connections();
                    break;
                case fault::kill:
                    inject.kill_service();
                    break;
                case fault::exchange_drop:
                    inject.drop_exchange();
                    break;
                case fault::store_full:
                    m_progress << "quillon-faults: store full from uplink " << produced << Qt::endl;
                    inject.limit_store(true);
                    break;
                case fault::store_space:
                    m_progress << "quillon-faults: store limit lifted at uplink " << produced << Qt::endl;
                    inject.limit_store(false);
                    break;
                case fault::node_stop:
                    m_progress << "quillon-faults: cluster node 2 stopped at uplink " << produced << Qt::endl;
                    inject.stop_node(2);
                    break;
                case fault::node_start:
                    m_progress << "quillon-faults: cluster node 2 started again at uplink " << produced
                               << Qt::endl;
                    inject.start_node(2);
                    break;
            }
            paused_ms += clock.elapsed() - started;
        }
        const uint64_t limit = next_event < events.size() ? events[next_event].at : m_options.uplinks;
        uint64_t due = limit;
        if (m_options.rate > 0) {
            due = std::min(limit, uint64_t((clock.elapsed() - paused_ms) * m_options.rate / 1000.0) + 1);
        }
        const uint64_t count = std::min<uint64_t>(batch_size, due > produced ? due - produced : 0);
        if (count == 0) {
            QThread::msleep(2);
            continue;
        }
        std::vector<QJsonObject> uplinks;
        std::vector<QString> keys;
        for (uint64_t i = 0; i < count; ++i) {
            uplinks.push_back(m_feed.next());
            keys.push_back(bench::uplink_feed::routing_key(uplinks.back(), m_route_key));
        }
        const qint64 before = clock.elapsed();
        if (!sender.send(uplinks, keys)) {
            m_error = sender.error();
            return false;
        }
        // Waiting for a broker that is down does not count against the rate.
        paused_ms += std::max<qint64>(0, clock.elapsed() - before - 1000);
        produced += count;
    }
    m_report.stream_s = seconds(clock);
    m_report.batches_sent_again = sender.batches_sent_again();
    return true;
}

void fault_run::drain() {
    QElapsedTimer clock;
    clock.start();
    int64_t last_progress = -1;
    QElapsedTimer still;
    still.start();
    for (;;) {
        uint32_t ready = 0;
        uint32_t rejected = 0;
        uint32_t consumers = 0;
        const bool counted = m_admin->queue_counts(m_uplink_queue, ready, consumers) &&
                             m_admin->queue_counts(m_rejected_queue, rejected, consumers);
        const int64_t stored = stored_so_far(m_store_path);
        const int64_t progress = stored + rejected;
        if (progress != last_progress) {
            last_progress = progress;
            still.restart();
        }
        if (counted && ready == 0 && progress >= int64_t(m_book.sent.size()) && still.elapsed() >= 1000) {
            break;
        }
        if (counted && ready == 0 && still.elapsed() > 15000) {
            m_report.problems << QString(
                                     "the service made no progress for 15 s with %1 of %2 uplinks handled")
                                     .arg(progress)
                                     .arg(m_book.sent.size());
            break;
        }
        if (clock.elapsed() > m_options.drain_timeout_s * 1000) {
            m_report.problems << QString("drain timed out after %1 s with %2 uplinks ready in the queue")
                                     .arg(m_options.drain_timeout_s)
                                     .arg(ready);
            break;
        }
        QThread::msleep(250);
    }
    m_report.drain_s = seconds(clock);
    m_report.service_exit_code = m_service->stop();
}

void fault_run::account() {
    std::vector<QByteArray> left;
    std::vector<QByteArray> rejected;
    if (!m_admin->take_all(m_uplink_queue, left) || !m_admin->take_all(m_rejected_queue, rejected)) {
        m_report.problems << "cannot read the tool's queues: " + m_admin->error();
    }
    auto file = [this](const std::vector<QByteArray>& bodies, QSet<uplink_key>& into) {
        for (const QByteArray& body : bodies) {
            uplink_key key = 0;
            if (key_of(body, key)) {
                into.insert(key);
            } else {
                ++m_book.unreadable;
            }
        }
    };
    file(left, m_book.left);
    file(rejected, m_book.rejected);
    QString error;
    if (!read_store(m_store_path, m_book.stored, error)) {
        m_report.problems << error;
    }
    m_book.logged = named_in_log(m_service->working_dir() + "/quillon.log");
    m_report.counts = count(m_book);
    if (m_book.unreadable > 0) {
        m_report.problems << QString("%1 queued messages named no uplink").arg(m_book.unreadable);
    }
    for (const uplink_key key : m_book.sent) {
        if (m_report.examples.size() >= max_examples) {
            break;
        }
        if (!m_book.stored.contains(key) && !m_book.rejected.contains(key)) {
            m_report.examples << describe(key) + (m_book.left.contains(key) ? ": left in the queue"
                                                                            : ": acknowledged, not stored");
        }
    }
    for (const uplink_key key : m_book.rejected) {
        if (m_report.examples.size() < max_examples && !m_book.logged.contains(key)) {
            m_report.examples << describe(key) + ": rejected, not named in the log";
        }
    }
}

void fault_run::clean_up() {
    if (!m_admin) {
        return;
    }
    m_admin->delete_queue(m_uplink_queue);
    m_admin->delete_queue(m_rejected_queue);
    m_admin->delete_exchange(m_client_exchange);
}

bool fault_run::run() {
    QElapsedTimer clock;
    clock.start();
    m_progress << "quillon-faults: starting the broker and the service..." << Qt::endl;
    bool ok = set_up();
    if (ok) {
        m_progress << "quillon-faults: streaming " << m_options.uplinks << " uplinks..." << Qt::endl;
        ok = stream();
    }
    if (ok) {
        m_progress << "quillon-faults: draining..." << Qt::endl;
        drain();
        account();
    } else if (m_service) {
        m_service->stop();
    }
    clean_up();
    if (m_options.cluster && m_options.stop_broker) {
        m_control.cluster_script({"stop"});
    } else if (m_broker.started_here && m_options.stop_broker) {
        bench::stop_private_broker();
    }
    m_progress << "quillon-faults: done in " << seconds(clock) << " s" << Qt::endl;
    return ok;
}

}  // namespace faults
