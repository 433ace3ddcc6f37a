// quillon-cli: sends one API command to a running service over the broker and prints
// the "data" of its response; `replay` moves dead-lettered uplinks back.
#include <unistd.h>
#include <QCoreApplication>
#include <QJsonDocument>
#include <QTextStream>
#include <QUuid>
#include <cstdlib>

#include "tools/cli/cli_options.h"
#include "tools/cli/command_call.h"
#include "tools/cli/command_table.h"
#include "tools/cli/exchange_link.h"
#include "tools/cli/json_printer.h"
#include "tools/cli/replay_run.h"
#include "tools/cli/tool_support.h"

namespace {

enum exit_status { answered = 0, failed = 1, no_response = 2 };

QTextStream& err() {
    static QTextStream stream(stderr);
    return stream;
}

int report(const QString& text, int status) {
    err() << "quillon-cli: " << text << Qt::endl;
    return status;
}

bool colours_wanted(const cli::invocation& run) {
    return !run.plain && qEnvironmentVariableIsEmpty("NO_COLOR") && ::isatty(STDOUT_FILENO) == 1;
}

int call(const cli::invocation& run) {
    if (!is_api_command(run.command)) {
        err() << "quillon-cli: warning: '" << run.command
              << "' is not one of the service's commands (see --help); sending it anyway" << Qt::endl;
    }
    const auto log = tool::endpoint_logger(run.verbose, "quillon-cli");
    const QString reply_key = "quillon-cli.reply." + QUuid::createUuid().toString(QUuid::Id128);
    tool::exchange_link link(*log, {run.url, run.vhost, run.exchange, {reply_key}, "quillon-cli"});
    if (!link.wait_ready(run.connect_timeout_s * 1000)) {
        const QString why = link.last_error();
        return report(QString("cannot reach the broker at %1 (virtual host %2, exchange %3) within %4 s%5")
                          .arg(link.display_url(), run.vhost, run.exchange)
                          .arg(run.connect_timeout_s)
                          .arg(why.isEmpty() ? QString() : ": " + why),
                      failed);
    }

    cli::command_call command(link, reply_key);
    command.prepare(run.command, run.body);
    if (run.verbose) {
        err() << "quillon-cli: to " << run.exchange << " / " << run.key << ": "
              << QJsonDocument(command.envelope()).toJson(QJsonDocument::Compact) << Qt::endl;
    }
    QJsonObject response;
    if (!command.send(run.key, run.timeout_s * 1000, &response)) {
        return report(
            QString("no response within %1 s; the service may have rejected the command, see its log")
                .arg(run.timeout_s),
            no_response);
    }
    QTextStream(stdout) << cli::format_json(run.envelope ? response : response.value("data").toObject(),
                                            colours_wanted(run))
                        << '\n';
    return answered;
}

}  // namespace

int main(int argc, char* argv[]) {
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName("quillon-cli");
    try {
        const cli::invocation run = cli::read_invocation(QCoreApplication::arguments());
        if (run.help) {
            QTextStream(stdout) << run.help_text;
            return answered;
        }
        tool::install_message_filter(run.verbose);
        if (run.replay) {
            QTextStream out(stdout);
            return cli::run_replay(run, out, err());
        }
        return call(run);
    } catch (const tool::usage_error& e) {
        return report(QString::fromUtf8(e.what()), failed);
    }
}
