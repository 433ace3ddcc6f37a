#pragma once

#include <QByteArray>
#include <QProcess>
#include <QStringList>

// quillon-netsim run as a process against the private broker.
class netsim_process {
public:
    ~netsim_process();

    // Starts with --url of the private broker and these arguments.
    bool start(const QStringList& arguments);
    // Waits for the "ready" line: its command queue is bound.
    bool wait_ready(int timeout_ms = 30000);
    // SIGINT, as Ctrl-C sends it.
    void interrupt();
    bool wait_for_exit(int timeout_ms = 60000);
    int exit_code() const { return m_process.exitCode(); }
    QByteArray standard_output();
    QByteArray standard_error();
    // The number on the summary line "<label>: <n>...", or -1.
    long long summary_value(const QString& label);

private:
    void collect();

    QProcess m_process;
    QByteArray m_out;
    QByteArray m_err;
};
