#include "tools/cli/cli_options.h"

#include <QCommandLineParser>
#include <QFile>

#include "app/config.h"
#include "tools/cli/command_table.h"
#include "tools/cli/request_body.h"
#include "tools/cli/tool_support.h"

namespace cli {

namespace {

[[noreturn]] void fail(const QString& text) {
    throw tool::usage_error(text.toStdString());
}

const char* const description =
    "Sends one API command to a running quillon service and prints the \"data\" of its response as\n"
    "indented JSON (coloured on a terminal). The broker, exchange and command routing key come from\n"
    "the service's configuration file (AMQP_API_SETTINGS) unless given as options.\n"
    "\n"
    "  quillon-cli get_info\n"
    "  quillon-cli get_roll --modem 77 --from 2026-01-01 --limit 10\n"
    "  quillon-cli send dl_queue '{\"77\": {\"action\": \"get\"}}'\n"
    "  echo '{\"modem_id\": [77]}' | quillon-cli device --body -\n"
    "\n"
    "  quillon-cli replay --queue NAME [--count N] [--dry-run] [--exchange NAME]\n"
    "moves dead-lettered uplinks from queue NAME back to the uplink exchange (from\n"
    "AMQP_UL_SETTINGS) under the routing keys they first had (their x-death header).\n"
    "\n"
    "Exit status: 0 response printed, 1 bad command line or broker not reachable,\n"
    "2 no response in time (the service rejects unknown commands and bad requests silently).\n"
    "replay: 0 all moved, 1 bad command line or broker failure, 2 some left in the queue.";

struct option_set {
    QCommandLineOption help{{"h", "help"}, "Shows this help with the list of commands."};
    QCommandLineOption config{
        {"c", "config"}, "The service's configuration file (default ./quillon.ini).", "FILE"};
    QCommandLineOption url{"url", "Broker URL (default: R_LOGIN of AMQP_API_SETTINGS).", "URL"};
    QCommandLineOption vhost{"vhost", "Virtual host (default: R_VHOST).", "VHOST"};
    QCommandLineOption exchange{
        "exchange",
        "Command exchange (default: R_EXCHANGE_CMD); for replay the target (the uplink exchange).", "NAME"};
    QCommandLineOption key{"key", "Routing key of the service's commands (default: first key of R_BINDINGS).",
                           "KEY"};
    QCommandLineOption timeout{"timeout", "Seconds to wait for the response (default 10).", "SECONDS", "10"};
    QCommandLineOption connect_timeout{"connect-timeout", "Seconds to wait for the broker (default 5).",
                                       "SECONDS", "5"};
    QCommandLineOption modem{"modem", "Modem id into \"modem_id\" (repeatable, or a comma list).", "ID"};
    QCommandLineOption from{"from", "\"from\": seconds since 1970 or ISO date/time (UTC unless zoned).",
                            "TIME"};
    QCommandLineOption to{"to", "\"to\": as --from.", "TIME"};
    QCommandLineOption limit{"limit", "\"limit\": most records per modem.", "N"};
    QCommandLineOption tag{"tag", "Tag into \"tag\" (repeatable, or a comma list).", "TAG"};
    QCommandLineOption obis{"obis", "OBIS code into \"obis_codes\" (repeatable, or a comma list).", "CODE"};
    QCommandLineOption step{"step", "\"step\": thinning interval in seconds.", "SECONDS"};
    QCommandLineOption set{
        "set", "Any other body key; the value is read as JSON when it is JSON (repeatable).", "KEY=VALUE"};
    QCommandLineOption body{"body", "The body as JSON text, or - to read it from standard input.", "JSON"};
    QCommandLineOption body_file{"body-file", "Reads the body from a file.", "FILE"};
    QCommandLineOption plain{"plain", "No colours even on a terminal."};
    QCommandLineOption envelope{"envelope", "Prints the whole response envelope instead of its \"data\"."};
    QCommandLineOption verbose{{"v", "verbose"}, "Shows the envelope sent and the broker connection's log."};
    QCommandLineOption queue{"queue", "replay: the queue to take the messages from (required).", "NAME"};
    QCommandLineOption count{"count", "replay: at most N messages (default: all there at the start).", "N"};
    QCommandLineOption dry_run{"dry-run", "replay: lists what would be moved and moves nothing."};

    QList<QCommandLineOption> all() const {
        return {help,  config,    url,   vhost,    exchange, key,   timeout, connect_timeout,
                modem, from,      to,    limit,    tag,      obis,  step,    set,
                body,  body_file, plain, envelope, verbose,  queue, count,   dry_run};
    }
};

QByteArray read_stdin() {
    QFile in;
    if (!in.open(stdin, QIODevice::ReadOnly)) {
        fail("cannot read the body from standard input");
    }
    return in.readAll();
}

QByteArray read_file(const QString& path) {
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        fail(QString("cannot read the body file %1: %2").arg(path, file.errorString()));
    }
    return file.readAll();
}

// The body given whole: as a positional argument, --body or --body-file (one of them).
QJsonObject explicit_body(const QCommandLineParser& parser, const option_set& o, const QStringList& rest) {
    const int given = int(rest.size() > 1) + int(parser.isSet(o.body)) + int(parser.isSet(o.body_file));
    if (given > 1) {
        fail("give the body once: as an argument, with --body or with --body-file");
    }
    if (rest.size() > 1) {
        return rest.at(1) == "-" ? parse_body(read_stdin(), "standard input")
                                 : parse_body(rest.at(1).toUtf8(), "the argument");
    }
    if (parser.isSet(o.body)) {
        const QString text = parser.value(o.body);
        return text == "-" ? parse_body(read_stdin(), "standard input") : parse_body(text.toUtf8(), "--body");
    }
    if (parser.isSet(o.body_file)) {
        return parse_body(read_file(parser.value(o.body_file)), parser.value(o.body_file));
    }
    return {};
}

// Options for the common keys, set on top of the explicit body.
void add_option_keys(const QCommandLineParser& parser, const option_set& o, QJsonObject& body) {
    if (parser.isSet(o.modem)) {
        body.insert("modem_id", parse_modems(parser.values(o.modem)));
    }
    if (parser.isSet(o.from)) {
        body.insert("from", parse_time(parser.value(o.from), "from"));
    }
    if (parser.isSet(o.to)) {
        body.insert("to", parse_time(parser.value(o.to), "to"));
    }
    if (parser.isSet(o.limit)) {
        body.insert("limit", parse_integer(parser.value(o.limit), "limit"));
    }
    if (parser.isSet(o.tag)) {
        body.insert("tag", parse_texts(parser.values(o.tag)));
    }
    if (parser.isSet(o.obis)) {
        body.insert("obis_codes", parse_texts(parser.values(o.obis)));
    }
    if (parser.isSet(o.step)) {
        body.insert("step", parse_integer(parser.value(o.step), "step"));
    }
    for (const QString& assignment : parser.values(o.set)) {
        const QJsonObject pair = parse_assignment(assignment);
        body.insert(pair.begin().key(), pair.begin().value());
    }
}

// Broker, exchange and key: options first, then the service's configuration.
void resolve_target(const QCommandLineParser& parser, const option_set& o, invocation& run) {
    const bool given = parser.isSet(o.config);
    const auto settings = tool::open_configuration(given ? parser.value(o.config) : "quillon.ini", given);
    const rabbit_api_config api = load_api_config(*settings);
    run.url = parser.isSet(o.url) ? parser.value(o.url) : api.url;
    run.vhost = parser.isSet(o.vhost) ? parser.value(o.vhost) : api.vhost;
    run.exchange = parser.isSet(o.exchange) ? parser.value(o.exchange) : api.exchange_cmd;
    if (parser.isSet(o.key)) {
        run.key = parser.value(o.key);
    } else if (!api.bindings.isEmpty()) {
        run.key = api.bindings.first().second;
    } else {
        fail("the configuration has no R_BINDINGS to take the command key from; give --key");
    }
}

// replay talks to the uplink side: AMQP_UL_SETTINGS and the exchange its queue is bound to.
void resolve_replay_target(const QCommandLineParser& parser, const option_set& o, invocation& run) {
    const bool given = parser.isSet(o.config);
    const auto settings = tool::open_configuration(given ? parser.value(o.config) : "quillon.ini", given);
    const PMConfig pm = load_pm_config(*settings);
    const EngineConfig engine = make_engine_config(load_general_settings(*settings), 0, 1, 0);
    const rabbit_receiver_cfg uplinks = load_receiver_config(*settings, pm, engine);
    run.url = parser.isSet(o.url) ? parser.value(o.url) : uplinks.url;
    run.vhost = parser.isSet(o.vhost) ? parser.value(o.vhost) : uplinks.vhost;
    run.heartbeat_s = uplinks.heartbeat;
    run.ca_cert = uplinks.ca_cert;
    if (parser.isSet(o.exchange)) {
        run.exchange = parser.value(o.exchange);
    } else if (!uplinks.bindings.isEmpty()) {
        run.exchange = uplinks.bindings.first().first;
    } else {
        fail("the configuration gives no uplink exchange; give --exchange");
    }
}

void read_replay(const QCommandLineParser& parser, const option_set& o, const QStringList& rest,
                 invocation& run) {
    if (rest.size() > 1) {
        fail(QString("unexpected argument '%1' after replay").arg(rest.at(1)));
    }
    for (const QCommandLineOption* body_option : {&o.body, &o.body_file, &o.modem, &o.set, &o.key}) {
        if (parser.isSet(*body_option)) {
            fail(QString("--%1 has no meaning for replay").arg(body_option->names().last()));
        }
    }
    run.replay = true;
    run.command = rest.first();
    run.queue = parser.value(o.queue);
    if (run.queue.isEmpty()) {
        fail("replay needs --queue NAME (the dead-letter queue)");
    }
    if (parser.isSet(o.count)) {
        run.count = tool::positive_integer(parser.value(o.count), "count");
    }
    run.dry_run = parser.isSet(o.dry_run);
    resolve_replay_target(parser, o, run);
}

}  // namespace

invocation read_invocation(const QStringList& arguments) {
    option_set o;
    QCommandLineParser parser;
    parser.setApplicationDescription(description);
    parser.addOptions(o.all());
    parser.addPositionalArgument("command", "An API command (list below); \"send\" before it is allowed.",
                                 "[send] COMMAND");
    parser.addPositionalArgument("body", "The command's body as JSON (- reads standard input).", "[BODY]");

    invocation run;
    if (!parser.parse(arguments)) {
        fail(parser.errorText());
    }
    if (parser.isSet(o.help)) {
        run.help = true;
        run.help_text = parser.helpText() + "\nCommands:\n" + api_command_help();
        return run;
    }

    QStringList rest = parser.positionalArguments();
    if (!rest.isEmpty() && rest.first() == "send") {
        rest.removeFirst();
    }
    if (rest.isEmpty()) {
        fail("no command given (see --help for the list)");
    }
    if (rest.size() > 2) {
        fail(QString("unexpected argument '%1'; quote the body as one argument").arg(rest.at(2)));
    }
    run.timeout_s = tool::positive_integer(parser.value(o.timeout), "timeout");
    run.connect_timeout_s = tool::positive_integer(parser.value(o.connect_timeout), "connect-timeout");
    run.verbose = parser.isSet(o.verbose);
    if (rest.first() == "replay") {
        read_replay(parser, o, rest, run);
        return run;
    }
    if (parser.isSet(o.queue) || parser.isSet(o.count) || parser.isSet(o.dry_run)) {
        fail("--queue, --count and --dry-run belong to replay");
    }
    run.command = rest.first();
    run.body = explicit_body(parser, o, rest);
    add_option_keys(parser, o, run.body);
    run.plain = parser.isSet(o.plain);
    run.envelope = parser.isSet(o.envelope);
    resolve_target(parser, o, run);
    return run;
}

}  // namespace cli
