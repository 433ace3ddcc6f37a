// quillon-passthrough: the broker-bound limit of the uplink path. Consumes an uplink
// queue on the service's settings and, per uplink, publishes the client messages that a
// publication profile describes, then acknowledges. Runs until it is killed.
#include <QCommandLineParser>
#include <QCoreApplication>
#include <QTextStream>

#include "app/config.h"
#include "app/logger.h"
#include "bench/passthrough/passthrough_consumer.h"

int main(int argc, char* argv[]) {
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName("quillon-passthrough");

    QCommandLineParser parser;
    parser.setApplicationDescription(
        "Consumes uplinks and publishes, per uplink, the client messages of a publication profile.");
    parser.addHelpOption();
    const QCommandLineOption url("url", "Broker URL.", "URL", default_broker_url);
    const QCommandLineOption vhost("vhost", "Virtual host (default /api).", "VHOST", "/api");
    const QCommandLineOption queue("queue", "Uplink queue to consume.", "NAME");
    const QCommandLineOption bindings("bindings", "Queue bindings, exchange:key[,exchange:key...].", "LIST");
    const QCommandLineOption options("queue-options", "Queue-declare option bits (default 2, durable).",
                                     "BITS", "2");
    const QCommandLineOption prefetch("prefetch", "Prefetch window (default 10).", "N", "10");
    const QCommandLineOption exchange("exchange", "Client exchange (default norvik.api).", "NAME",
                                      "norvik.api");
    const QCommandLineOption profile("profile", "Publication profile (JSON).", "FILE");
    const QCommandLineOption log_file("log", "Log file for errors (default: none).", "FILE");
    parser.addOptions({url, vhost, queue, bindings, options, prefetch, exchange, profile, log_file});
    parser.process(app);

    QTextStream out(stdout);
    QTextStream err(stderr);
    if (!parser.isSet(queue) || !parser.isSet(profile)) {
        err << "quillon-passthrough: --queue and --profile are required\n";
        return 2;
    }
    const passthrough::publication_profile messages =
        passthrough::publication_profile::load(parser.value(profile));
    if (messages.empty()) {
        err << "quillon-passthrough: no uplinks in the profile " << parser.value(profile) << '\n';
        return 2;
    }

    const bool with_log = parser.isSet(log_file);
    logger log(with_log ? parser.value(log_file) : QString(), with_log ? Error : Off, "passthrough");
    rabbit_receiver_cfg uplinks;
    uplinks.url = parser.value(url);
    uplinks.vhost = parser.value(vhost);
    uplinks.queue = parser.value(queue);
    uplinks.bindings = parse_bindings(parser.value(bindings), &log);
    uplinks.queue_options = parser.value(options).toInt();
    uplinks.prefetch = parser.value(prefetch).toInt();
    rabbit_publisher_config clients;
    clients.url = parser.value(url);
    clients.vhost = parser.value(vhost);
    clients.exchange = parser.value(exchange);

    passthrough::passthrough_consumer consumer(log, uplinks, clients, messages);
    QObject::connect(&consumer, &passthrough::passthrough_consumer::consuming,
                     [&out] { out << "consuming" << Qt::endl; });
    return app.exec();
}
