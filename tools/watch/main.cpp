// quillon-watch: prints the service's client publications as they arrive, one line each.
#include <QCommandLineParser>
#include <QCoreApplication>
#include <QDateTime>
#include <QTextStream>

#include "app/config.h"
#include "tools/cli/exchange_link.h"
#include "tools/cli/tool_support.h"
#include "tools/watch/publication_line.h"

namespace {

struct watch_run {
    tool::link_settings link;
    int count = 0;  // 0: until stopped
    bool json = false;
    bool verbose = false;
    int connect_timeout_s = 5;
};

const char* const description =
    "Binds a temporary queue to the client exchange (R_EXCHANGE of AMQP_UL_CLIENT_SETTINGS) and prints\n"
    "one line per client publication: arrival time, routing key, modem, and the value (obis_code =\n"
    "value), the event (code and message) or the roll (tag and parse_status). Plain and wrapped\n"
    "bodies are understood. Routing keys default to #.ul_eav.# and #.ul_roll.#.\n"
    "\n"
    "  quillon-watch\n"
    "  quillon-watch --key 'c1.#' --json\n"
    "  quillon-watch --count 2\n"
    "\n"
    "Exit status: 0 after --count publications (or when stopped), 1 bad command line or broker not\n"
    "reachable.";

watch_run read_run(const QStringList& arguments) {
    QCommandLineParser parser;
    parser.setApplicationDescription(description);
    parser.addHelpOption();
    const QCommandLineOption config({"c", "config"},
                                    "The service's configuration file (default ./quillon.ini).", "FILE");
    const QCommandLineOption url("url", "Broker URL (default: R_LOGIN of AMQP_UL_CLIENT_SETTINGS).", "URL");
    const QCommandLineOption vhost("vhost", "Virtual host (default: R_VHOST).", "VHOST");
    const QCommandLineOption exchange("exchange", "Client exchange (default: R_EXCHANGE).", "NAME");
    const QCommandLineOption key("key", "Routing key to bind (repeatable).", "KEY");
    const QCommandLineOption count("count", "Exit after N publications.", "N");
    const QCommandLineOption json("json", "Print each body as it came, one per line.");
    const QCommandLineOption connect_timeout("connect-timeout", "Seconds to wait for the broker (default 5).",
                                             "SECONDS", "5");
    const QCommandLineOption verbose({"v", "verbose"}, "Shows the broker connection's log.");
    parser.addOptions({config, url, vhost, exchange, key, count, json, connect_timeout, verbose});
    parser.process(arguments);  // --help and a bad command line end here (status 0 and 1)
    if (!parser.positionalArguments().isEmpty()) {
        throw tool::usage_error(QString("unexpected argument '%1' (see --help)")
                                    .arg(parser.positionalArguments().first())
                                    .toStdString());
    }

    const bool given = parser.isSet(config);
    const auto settings = tool::open_configuration(given ? parser.value(config) : "quillon.ini", given);
    const rabbit_publisher_clients_config clients = load_clients_publisher_config(*settings);
    watch_run run;
    run.link.url = parser.isSet(url) ? parser.value(url) : clients.url;
    run.link.vhost = parser.isSet(vhost) ? parser.value(vhost) : clients.vhost;
    run.link.exchange = parser.isSet(exchange) ? parser.value(exchange) : clients.exchange;
    run.link.keys = parser.isSet(key) ? parser.values(key) : QStringList{"#.ul_eav.#", "#.ul_roll.#"};
    run.link.name_prefix = "quillon-watch";
    if (parser.isSet(count)) {
        run.count = tool::positive_integer(parser.value(count), "count");
    }
    run.json = parser.isSet(json);
    run.verbose = parser.isSet(verbose);
    run.connect_timeout_s = tool::positive_integer(parser.value(connect_timeout), "connect-timeout");
    return run;
}

int fail(const QString& text) {
    QTextStream(stderr) << "quillon-watch: " << text << Qt::endl;
    return 1;
}

}  // namespace

int main(int argc, char* argv[]) {
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName("quillon-watch");
    watch_run run;
    try {
        run = read_run(QCoreApplication::arguments());
    } catch (const tool::usage_error& e) {
        return fail(QString::fromUtf8(e.what()));
    }
    tool::install_message_filter(run.verbose);
    const auto log = tool::endpoint_logger(run.verbose, "quillon-watch");
    tool::exchange_link link(*log, run.link);
    if (!link.wait_ready(run.connect_timeout_s * 1000)) {
        const QString why = link.last_error();
        return fail(QString("cannot reach the broker at %1 (virtual host %2, exchange %3) within %4 s%5")
                        .arg(link.display_url(), run.link.vhost, run.link.exchange)
                        .arg(run.connect_timeout_s)
                        .arg(why.isEmpty() ? QString() : ": " + why));
    }
    QTextStream(stderr) << "quillon-watch: watching exchange " << run.link.exchange << " for "
                        << run.link.keys.join(", ") << Qt::endl;

    QTextStream out(stdout);
    int seen = 0;
    QObject::connect(
        &link, &tool::exchange_link::received, &app, [&](const QByteArray& body, const QString& routing_key) {
            if (run.count > 0 && seen >= run.count) {
                return;
            }
            if (run.json) {
                out << body << Qt::endl;
            } else {
                out << watch::describe(body, routing_key, QDateTime::currentDateTime()) << Qt::endl;
            }
            if (run.count > 0 && ++seen == run.count) {
                QCoreApplication::quit();
            }
        });
    return app.exec();
}
