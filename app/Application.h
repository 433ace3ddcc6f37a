#pragma once

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QSettings>
#include <memory>

#include "app/composition.h"
#include "app/config.h"
#include "app/logger.h"

class signal_watcher;

// The process: its constructor does the whole start-up (command line, configuration,
// log, composition of the service); exec() then runs the event loop. Members are
// declared in construction order; destruction runs the other way, engine first.
class Application : public QCoreApplication {
    Q_OBJECT
public:
    // argc must outlive the application (QCoreApplication keeps a reference).
    Application(int& argc, char** argv);
    ~Application() override;
    Q_DISABLE_COPY(Application)

    // stop_application quits the loop; any other std::exception is swallowed.
    bool notify(QObject* receiver, QEvent* event) override;

    const logger& log() const { return *m_log; }
    const startup_records& records() const { return *m_records; }
    // --print-config: the configuration was printed and nothing was started.
    bool printed_configuration() const { return m_print_only; }

private:
    bool process_command_line();
    QString log_name() const;
    void print_configuration_and_warnings();
    void report_configuration_warnings();
    void fill_records();
    void compose();
    void on_termination_signal(int signal_number);

    QCommandLineParser m_parser;
    bool m_result = process_command_line();
    QSettings m_settings;
    PMConfig m_pm;
    bool m_print_only = false;
    std::unique_ptr<logger> m_log;
    std::unique_ptr<signal_watcher> m_signals;
    std::unique_ptr<startup_records> m_records;  // the injector: every record the graph is built from
    std::unique_ptr<QObject> m_engine;
};
