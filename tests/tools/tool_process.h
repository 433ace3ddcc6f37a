#pragma once

// Runs one of the command-line tools as a child process, as an operator would.

#include <QByteArray>
#include <QProcess>
#include <QString>
#include <QStringList>

#include "tests/support/service_harness.h"

namespace tools_test {

struct tool_result {
    int status = -1;  // exit status; -1 when the tool did not finish
    QString out;
    QString err;
};

inline QString tool_path(const QString& name) {
    return QStringLiteral(QUILLON_BIN_DIR "/") + name;
}

// Starts the tool; the caller keeps the event loop running while it works.
inline void start_tool(QProcess& process, const QString& name, const QStringList& arguments) {
    process.start(tool_path(name), arguments);
    process.waitForStarted(10000);
}

inline tool_result finish_tool(QProcess& process, int timeout_ms = 30000) {
    tool_result result;
    const bool ended = e2e::wait_until([&] { return process.state() == QProcess::NotRunning; }, timeout_ms);
    if (!ended) {
        process.kill();
        process.waitForFinished(5000);
    }
    result.out = QString::fromUtf8(process.readAllStandardOutput());
    result.err = QString::fromUtf8(process.readAllStandardError());
    if (ended && process.exitStatus() == QProcess::NormalExit) {
        result.status = process.exitCode();
    }
    return result;
}

// Runs the tool to its end, with `input` on its standard input.
inline tool_result run_tool(const QString& name, const QStringList& arguments, const QByteArray& input = {},
                            int timeout_ms = 30000) {
    QProcess process;
    start_tool(process, name, arguments);
    process.write(input);
    process.closeWriteChannel();
    return finish_tool(process, timeout_ms);
}

}  // namespace tools_test
