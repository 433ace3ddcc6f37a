// quillon-watch: prints the service's client publications as they arrive, one line each.
#include <QCommandLineParser>
#include <QCoreApplication>
#include <QDateTime>
#include <QJsonObject>
#include <QTextStream>
#include <QUuid>
#include <vector>

#include "app/config.h"
#include "tools/cli/command_call.h"
#include "tools/cli/exchange_link.h"
#include "tools/cli/tool_support.h"
#include "tools/watch/publication_line.h"

namespace {

struct watch_run {
    tool::link_settings link;
    tool::link_settings commands;  // the service's command exchange, for get_metadata
    QString command_key;           // the service's command routing key
    bool units = true;
    int metadata_timeout_s = 3;
    int count = 0;  // 0: until stopped
    bool json = false;
    bool verbose = false;
    int connect_timeout_s = 5;
};

const char* const description =
    "Binds a temporary queue to the client exchange (R_EXCHANGE of AMQP_UL_CLIENT_SETTINGS) and prints\n"
    "one line per client publication: arrival time, routing key, modem, and the value (obis_code =\n"
    "value unit), the event (code and message) or the roll (tag and parse_status). Plain and wrapped\n"
    "bodies are understood. Routing keys default to #.ul_eav.# and #.ul_roll.#.\n"
    "\n"
    "Units come from the driver's metadata, asked once at start with get_metadata on the service's\n"
    "command exchange (AMQP_API_SETTINGS); without an answer values are printed without units.\n"
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
    const QCommandLineOption no_units("no-units", "Do not ask the service for the units of the values.");
    const QCommandLineOption metadata_timeout(
        "metadata-timeout", "Seconds to wait for the service's metadata (default 3).", "SECONDS", "3");
    parser.addOptions({config, url, vhost, exchange, key, count, json, connect_timeout, verbose, no_units,
                       metadata_timeout});
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
    run.metadata_timeout_s = tool::positive_integer(parser.value(metadata_timeout), "metadata-timeout");

    const rabbit_api_config api = load_api_config(*settings);
    run.units = !parser.isSet(no_units) && !parser.isSet(json) && !api.bindings.isEmpty();
    run.commands.url = api.url;
    run.commands.vhost = api.vhost;
    run.commands.exchange = api.exchange_cmd;
    run.commands.name_prefix = "quillon-watch";
    run.command_key = api.bindings.isEmpty() ? QString() : api.bindings.first().second;
    return run;
}

struct publication {
    QByteArray body;
    QString routing_key;
    QDateTime arrival;
};

int fail(const QString& text) {
    QTextStream(stderr) << "quillon-watch: " << text << Qt::endl;
    return 1;
}

// The units of the driver's values, asked once: get_metadata for every hardware type and
// protocol ("*"). Without an answer the values are printed without units.
watch::unit_table fetch_units(logger& log, const watch_run& run) {
    const QString reply_key = "quillon-watch.reply." + QUuid::createUuid().toString(QUuid::Id128);
    tool::link_settings settings = run.commands;
    settings.keys = QStringList{reply_key};
    tool::exchange_link link(log, settings);
    QJsonObject response;
    if (link.wait_ready(run.connect_timeout_s * 1000)) {
        cli::command_call call(link, reply_key);
        call.prepare("get_metadata", QJsonObject{{"hw_type", "*"}, {"protocol", "*"}});
        call.send(run.command_key, run.metadata_timeout_s * 1000, &response);
    }
    const watch::unit_table units(response.value("data").toObject());
    if (units.empty()) {
        QTextStream(stderr) << "quillon-watch: no units from the service (get_metadata on "
                            << settings.exchange << " / " << run.command_key
                            << "): values are printed without units" << Qt::endl;
    }
    return units;
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

    QTextStream out(stdout);
    int seen = 0;
    watch::unit_table units;
    // Prints one publication; true once --count publications have been printed.
    const auto show = [&](const publication& p) {
        if (run.count > 0 && seen >= run.count) {
            return true;
        }
        if (run.json) {
            out << p.body << Qt::endl;
        } else {
            out << watch::describe(p.body, p.routing_key, p.arrival, units) << Qt::endl;
        }
        return run.count > 0 && ++seen == run.count;
    };
    // Publications that arrive while the units are asked for wait, then print in order.
    std::vector<publication> early;
    bool asking = run.units;
    QObject::connect(&link, &tool::exchange_link::received, &app,
                     [&](const QByteArray& body, const QString& routing_key) {
                         const publication p{body, routing_key, QDateTime::currentDateTime()};
                         if (asking) {
                             early.push_back(p);
                         } else if (show(p)) {
                             QCoreApplication::quit();
                         }
                     });
    if (run.units) {
        units = fetch_units(*log, run);
        asking = false;
    }
    QTextStream(stderr) << "quillon-watch: watching exchange " << run.link.exchange << " for "
                        << run.link.keys.join(", ") << Qt::endl;
    for (const publication& p : early) {
        if (show(p)) {
            return 0;
        }
    }
    return app.exec();
}
