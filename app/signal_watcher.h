#pragma once

#include <QObject>
#include <QSocketNotifier>
#include <memory>

// Turns SIGTERM and SIGINT into a Qt signal on the event-loop thread. The handler only
// writes the signal number into a socket pair (async-signal-safe); a socket notifier
// reads it back inside the event loop. One instance per process.
class signal_watcher : public QObject {
    Q_OBJECT
public:
    explicit signal_watcher(QObject* parent = nullptr);
    ~signal_watcher() override;
    Q_DISABLE_COPY(signal_watcher)

    bool is_active() const { return m_notifier != nullptr; }

signals:
    void termination_requested(int signal_number);

private:
    void on_readable();

    std::unique_ptr<QSocketNotifier> m_notifier;
};
