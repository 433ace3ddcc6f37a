#pragma once

#include <QElapsedTimer>
#include <QObject>
#include <QTemporaryDir>
#include <QTimer>
#include <memory>

#include "app/logger.h"
#include "app/signal_watcher.h"
#include "command_responder.h"
#include "netsim_options.h"
#include "uplink_history.h"
#include "uplink_sender.h"

class rabbit_publisher_impl;

// quillon-netsim as a whole: connects, waits until its command queue is bound, then
// sends uplinks and answers commands until the count is out (and the last downlink is
// reported), the duration is over or a stop signal arrives; then prints the summary.
class netsim_app : public QObject {
    Q_OBJECT
public:
    explicit netsim_app(const netsim_options& options, QObject* parent = nullptr);
    ~netsim_app() override;
    Q_DISABLE_COPY(netsim_app)

    // Runs the event loop to the end; returns the exit status.
    int run();

private:
    void on_ready();
    void on_connect_timeout();
    void on_uplinks_done();
    void drain();
    void end();
    void print_progress();
    void print_summary();
    double elapsed_s() const;

    netsim_options m_options;
    QTemporaryDir m_quiet_dir;
    std::unique_ptr<logger> m_log;
    netsim_counters m_counters;
    uplink_history m_history;
    std::unique_ptr<rabbit_publisher_impl> m_publisher;
    std::unique_ptr<command_responder> m_responder;
    std::unique_ptr<uplink_sender> m_sender;
    signal_watcher m_signals;
    QTimer m_connect_deadline;
    QTimer m_duration;
    QTimer m_progress;
    QTimer m_drain;
    QElapsedTimer m_clock;
    bool m_ended = false;
};
