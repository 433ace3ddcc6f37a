#include "app/Application.h"

#include <QDateTime>
#include <exception>
#include <iostream>
#include <stdexcept>

#include "app/command_line.h"
#include "app/config_keys.h"
#include "app/signal_watcher.h"
#include "app/stop_application.h"

Application::Application(int& argc, char** argv)
    : QCoreApplication(argc, argv),
      m_settings(command_line::config_path(m_parser), QSettings::IniFormat),
      m_pm(load_pm_config(m_settings)),
      m_print_only(command_line::print_config(m_parser)),
      m_log(m_print_only ? nullptr : std::make_unique<logger>(m_settings, log_name())) {
    if (m_print_only) {
        print_configuration_and_warnings();
        return;
    }
    log_line(*m_log, Info) << "starting with " << m_settings.fileName();
    report_configuration_warnings();
    m_signals = std::make_unique<signal_watcher>();
    connect(m_signals.get(), &signal_watcher::termination_requested, this,
            &Application::on_termination_signal);
    fill_records();
    compose();
    log_line(*m_log, Info) << "started";
}

Application::~Application() {
    m_engine.reset();
    m_records.reset();
    m_signals.reset();
    if (m_log) {
        log_line(*m_log, Info) << "stopped";
    }
}

bool Application::process_command_line() {
    return command_line::process(m_parser, *this);
}

QString Application::log_name() const {
    // Count before position here; the uplink queue name has them the other way round.
    return QString("%1_%2_%3from%4")
        .arg(m_pm.protocol, m_pm.instance_names.value(0))
        .arg(command_line::instances(m_parser))
        .arg(command_line::position(m_parser));
}

void Application::print_configuration_and_warnings() {
    std::cout << print_configuration(m_settings).toStdString() << std::flush;
    report_configuration_warnings();
}

// Each once, in the log (when there is one) and on standard error: the log may be off.
void Application::report_configuration_warnings() {
    for (const QString& warning : configuration_warnings(m_settings)) {
        if (m_log) {
            log_line(*m_log, Warning) << warning;
        }
        std::cerr << "warning: " << warning.toStdString() << std::endl;
    }
    const QString level = log_level_warning(m_settings);
    if (!level.isEmpty()) {
        std::cerr << "warning: " << level.toStdString() << std::endl;  // the log is off
    }
}

void Application::fill_records() {
    m_records = std::make_unique<startup_records>();
    startup_records& r = *m_records;
    r.settings = &m_settings;
    r.pm = m_pm;
    r.general = load_general_settings(m_settings);
    r.engine = make_engine_config(r.general, QDateTime::currentSecsSinceEpoch(),
                                  command_line::instances(m_parser), command_line::position(m_parser));
    r.receiver = load_receiver_config(m_settings, r.pm, r.engine, m_log.get());
    r.api = load_api_config(m_settings, m_log.get());
    r.clients = load_clients_publisher_config(m_settings);
    r.dl = rabbit_publisher_dl_config{};  // AMQP_DL_SETTINGS has no effect in this version
    r.log = m_log.get();
    r.parent = this;
}

void Application::compose() {
    try {
        const QString instances =
            command_line::instance_error(command_line::instances(m_parser), command_line::position(m_parser));
        if (!instances.isEmpty()) {
            throw std::invalid_argument(instances.toStdString());
        }
        m_engine = compose_service(*m_records);
    } catch (const std::exception& e) {
        log_line(*m_log, Error) << "start-up failed: " << e.what();
        std::cerr << "start-up failed: " << e.what() << std::endl;
        throw;
    }
}

void Application::on_termination_signal(int signal_number) {
    log_line(*m_log, Info) << "signal " << static_cast<uint64_t>(signal_number) << " received, stopping";
    quit();
}

bool Application::notify(QObject* receiver, QEvent* event) {
    try {
        return QCoreApplication::notify(receiver, event);
    } catch (const stop_application&) {
        quit();
        return true;
    } catch (const std::exception& e) {
        if (m_log) {
            log_line(*m_log, Error) << "exception in event dispatch, ignored: " << e.what();
        }
        return true;
    }
}
