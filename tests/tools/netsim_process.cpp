#include "netsim_process.h"

#include <QRegularExpression>
#include <csignal>

#include "tests/support/service_harness.h"

netsim_process::~netsim_process() {
    if (m_process.state() != QProcess::NotRunning) {
        m_process.kill();
        m_process.waitForFinished(10000);
    }
}

bool netsim_process::start(const QStringList& arguments) {
    m_process.start(QUILLON_BIN_DIR "/quillon-netsim", QStringList{"--url", e2e::broker_url()} + arguments);
    return m_process.waitForStarted(10000);
}

void netsim_process::collect() {
    m_out += m_process.readAllStandardOutput();
    m_err += m_process.readAllStandardError();
}

bool netsim_process::wait_ready(int timeout_ms) {
    return e2e::wait_until(
               [this] {
                   collect();
                   return m_err.contains("quillon-netsim: ready:") ||
                          m_process.state() == QProcess::NotRunning;
               },
               timeout_ms) &&
           m_err.contains("quillon-netsim: ready:");
}

void netsim_process::interrupt() {
    if (m_process.state() == QProcess::Running) {
        ::kill(static_cast<pid_t>(m_process.processId()), SIGINT);
    }
}

bool netsim_process::wait_for_exit(int timeout_ms) {
    const bool ended =
        e2e::wait_until([this] { return m_process.state() == QProcess::NotRunning; }, timeout_ms);
    collect();
    return ended && m_process.exitStatus() == QProcess::NormalExit;
}

QByteArray netsim_process::standard_output() {
    collect();
    return m_out;
}

QByteArray netsim_process::standard_error() {
    collect();
    return m_err;
}

long long netsim_process::summary_value(const QString& label) {
    const QRegularExpression line("^" + QRegularExpression::escape(label) + ": (\\d+)",
                                  QRegularExpression::MultilineOption);
    const QRegularExpressionMatch match = line.match(QString::fromUtf8(standard_output()));
    return match.hasMatch() ? match.captured(1).toLongLong() : -1;
}
