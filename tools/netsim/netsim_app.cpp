#include "netsim_app.h"

#include <QCoreApplication>
#include <QTextStream>

#include "amqp/rabbit_publisher.h"

namespace {

constexpr int progress_every_ms = 5000;

QTextStream& err() {
    static QTextStream stream(stderr);
    return stream;
}

}  // namespace

netsim_app::netsim_app(const netsim_options& options, QObject* parent) : QObject(parent), m_options(options) {
    // Without --log the endpoints' lines are switched off (the file stays empty).
    m_log = options.log_file.isEmpty()
                ? std::make_unique<logger>(m_quiet_dir.filePath("netsim.log"), Off, "netsim")
                : std::make_unique<logger>(options.log_file, Debug, "netsim");
    rabbit_publisher_config publisher_cfg;
    publisher_cfg.url = options.url;
    publisher_cfg.vhost = options.vhost;
    publisher_cfg.exchange = options.exchange;
    m_publisher = std::make_unique<rabbit_publisher_impl>(*m_log, publisher_cfg);

    command_responder::settings responder_cfg;
    responder_cfg.url = options.url;
    responder_cfg.vhost = options.vhost;
    responder_cfg.exchange = options.exchange;
    responder_cfg.instance = options.instance;
    responder_cfg.protocol = options.protocol;
    responder_cfg.ul_route_key = options.ul_route_key;
    responder_cfg.fault_ratio = options.dl_fault_ratio;
    responder_cfg.report_delay_ms = options.dl_delay_ms;
    responder_cfg.seed = options.seed;
    m_responder =
        std::make_unique<command_responder>(*m_log, responder_cfg, *m_publisher, m_history, m_counters, this);

    uplink_sender::settings sender_cfg;
    sender_cfg.instance = options.instance;
    sender_cfg.protocol = options.protocol;
    sender_cfg.ul_route_key = options.ul_route_key;
    sender_cfg.balancer = options.balancer;
    sender_cfg.balancer_key = options.balancer_key;
    sender_cfg.hw_type = options.hw_type;
    sender_cfg.modems = options.modems;
    sender_cfg.first_modem = options.first_modem;
    sender_cfg.rate = options.rate;
    sender_cfg.fast = options.fast;
    sender_cfg.count = options.count;
    sender_cfg.heartbeat_every = options.heartbeat_every;
    sender_cfg.seed = options.seed;
    m_sender = std::make_unique<uplink_sender>(sender_cfg, *m_publisher, m_history, m_counters, this);

    connect(m_responder.get(), &command_responder::ready, this, &netsim_app::on_ready);
    connect(m_sender.get(), &uplink_sender::done, this, &netsim_app::on_uplinks_done);
    connect(&m_signals, &signal_watcher::termination_requested, this, &netsim_app::end);
    m_connect_deadline.setSingleShot(true);
    connect(&m_connect_deadline, &QTimer::timeout, this, &netsim_app::on_connect_timeout);
    m_duration.setSingleShot(true);
    m_duration.setTimerType(Qt::PreciseTimer);
    connect(&m_duration, &QTimer::timeout, this, &netsim_app::end);
    connect(&m_progress, &QTimer::timeout, this, &netsim_app::print_progress);
    connect(&m_drain, &QTimer::timeout, this, &netsim_app::drain);
}

netsim_app::~netsim_app() = default;

int netsim_app::run() {
    m_connect_deadline.start(m_options.connect_timeout_s * 1000);
    return QCoreApplication::exec();
}

void netsim_app::on_connect_timeout() {
    err() << "quillon-netsim: no answer from the broker at " << mask_url_password(m_options.url) << " (vhost "
          << m_options.vhost << ", exchange " << m_options.exchange << ") within "
          << m_options.connect_timeout_s << " s\n";
    err().flush();
    m_ended = true;
    QCoreApplication::exit(1);
}

void netsim_app::on_ready() {
    m_connect_deadline.stop();
    err() << "quillon-netsim: ready: " << m_options.modems << " modems from " << m_options.first_modem
          << " on "
          << (m_options.balancer > 0 ? netsim::balancer_routing_key(m_options.first_modem, m_options.balancer,
                                                                    m_options.instance, m_options.protocol,
                                                                    m_options.balancer_key)
                                     : netsim::uplink_routing_key(m_options.first_modem, m_options.instance,
                                                                  m_options.protocol, m_options.ul_route_key))
          << " and on, commands from cmd.in.netcore\n";
    err().flush();
    m_clock.start();
    if (m_options.duration_s > 0) {
        m_duration.start(int(std::min(m_options.duration_s * 1000.0, 2.0e9)));
    }
    if (!m_options.quiet) {
        m_progress.start(progress_every_ms);
    }
    m_sender->start();
}

void netsim_app::on_uplinks_done() {
    // With a count and no duration the run ends once the last downlink is reported.
    if (m_options.duration_s <= 0) {
        m_drain.start(50);
        drain();
    }
}

void netsim_app::drain() {
    if (m_responder->pending_downlinks() == 0) {
        end();
    }
}

void netsim_app::end() {
    if (m_ended) {
        return;
    }
    m_ended = true;
    m_sender->stop();
    m_progress.stop();
    m_drain.stop();
    m_duration.stop();
    m_connect_deadline.stop();
    print_summary();
    QCoreApplication::exit(0);
}

double netsim_app::elapsed_s() const {
    return m_clock.isValid() ? m_clock.nsecsElapsed() / 1.0e9 : 0.0;
}

void netsim_app::print_progress() {
    const double seconds = elapsed_s();
    err() << "quillon-netsim: " << QString::number(seconds, 'f', 1) << " s: " << m_counters.uplinks
          << " uplinks (" << QString::number(seconds > 0 ? m_counters.uplinks / seconds : 0.0, 'f', 1)
          << "/s), " << m_counters.heartbeats << " heartbeats, " << m_counters.downlinks
          << " downlinks answered, " << m_counters.history_messages << " history messages";
    if (m_counters.dropped > 0) {
        err() << ", " << m_counters.dropped << " dropped";
    }
    err() << "\n";
    err().flush();
}

void netsim_app::print_summary() {
    const double seconds = elapsed_s();
    QTextStream out(stdout);
    out << "uplinks: " << m_counters.uplinks << "\n"
        << "heartbeats: " << m_counters.heartbeats << "\n"
        << "downlinks answered: " << m_counters.downlinks << " (faults: " << m_counters.downlink_faults
        << ")\n"
        << "history requests: " << m_counters.history_requests
        << " (messages republished: " << m_counters.history_messages << ")\n"
        << "dropped: " << m_counters.dropped << "\n"
        << "elapsed: " << QString::number(seconds, 'f', 3) << " s\n"
        << "average rate: " << QString::number(seconds > 0 ? m_counters.uplinks / seconds : 0.0, 'f', 1)
        << " uplinks/s\n";
    out.flush();
}
