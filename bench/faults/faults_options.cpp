#include "bench/faults/faults_options.h"

#include <QCommandLineParser>

#include "bench/option_values.h"

namespace faults {

namespace {

template <class T>
bool read_count(const QCommandLineParser& parser, const QCommandLineOption& option, T& out,
                QString& message) {
    return bench::read_option_number(parser, option, out, message, true);
}

}  // namespace

bool parse_options(const QStringList& arguments, faults_options& out, QString& message, bool& help) {
    QCommandLineParser parser;
    parser.setApplicationDescription(
        "Streams application uplinks of the netsim fleet to the service (SQLite store, private test "
        "broker) while injecting faults, then counts what the store holds against what the broker "
        "took, acknowledged and dead-lettered. The last line holds the counts as key=value pairs; the "
        "exit status is 1 when an uplink was lost or acknowledged without being stored.");
    const QCommandLineOption help_option({"h", "help"}, "This help.");
    const QCommandLineOption uplinks("uplinks", "Uplinks streamed (default 2000).", "N");
    const QCommandLineOption modems("modems", "Modems of the fleet (default 100).", "N");
    const QCommandLineOption rate("rate", "Uplinks a second (default 400; 0 = as fast as confirmed).", "R");
    const QCommandLineOption restarts("broker-restarts", "Broker restarts during the stream.", "N");
    const QCommandLineOption closes("closes", "Rounds of forced closes of the service's connections.", "N");
    const QCommandLineOption kills("kills", "kill -9 of the service (started again at once).", "N");
    const QCommandLineOption drops("exchange-drops", "Client exchange deleted and declared again.", "N");
    const QCommandLineOption store_full("store-full",
                                        "The store is full (SQLite max_page_count) for the middle third.");
    const QCommandLineOption drain("drain-timeout", "Seconds to wait for the service at the end (120).", "S");
    const QCommandLineOption stop_broker("stop-broker", "Stop the private broker if this run started it.");
    const QCommandLineOption keep("keep", "Keep the service's directory (log and store) and print its path.");
    const QCommandLineOption cluster("cluster",
                                     "Run against the private three-node cluster (scripts/test-cluster, "
                                     "started if needed) with a quorum uplink queue led by node 2.");
    const QCommandLineOption node_stop("node-stop",
                                       "With --cluster: node 2 (the uplink queue's leader) is stopped for "
                                       "the middle third of the stream.");
    parser.addOptions({help_option, uplinks, modems, rate, restarts, closes, kills, drops, store_full, drain,
                       stop_broker, keep, cluster, node_stop});
    if (!parser.parse(arguments)) {
        message = parser.errorText();
        return false;
    }
    help = parser.isSet(help_option);
    if (help) {
        message = parser.helpText();
        return false;
    }
    if (!parser.positionalArguments().isEmpty()) {
        message = "unexpected argument: " + parser.positionalArguments().first();
        return false;
    }
    out = faults_options{};
    out.store_full = parser.isSet(store_full);
    out.stop_broker = parser.isSet(stop_broker);
    out.keep = parser.isSet(keep);
    out.cluster = parser.isSet(cluster);
    out.node_stop = parser.isSet(node_stop);
    if (out.node_stop && !out.cluster) {
        message = "--node-stop needs --cluster";
        return false;
    }
    if (out.cluster && (out.broker_restarts > 0 || parser.isSet(restarts))) {
        message = "--broker-restarts restarts the single private node; with --cluster use --node-stop";
        return false;
    }
    if (parser.isSet(rate)) {
        bool ok = false;
        out.rate = parser.value(rate).toDouble(&ok);
        if (!ok || out.rate < 0) {
            message = "--rate: not a rate: " + parser.value(rate);
            return false;
        }
    }
    if (!(read_count(parser, uplinks, out.uplinks, message) &&
          read_count(parser, modems, out.modems, message) &&
          read_count(parser, restarts, out.broker_restarts, message) &&
          read_count(parser, closes, out.closes, message) && read_count(parser, kills, out.kills, message) &&
          read_count(parser, drops, out.exchange_drops, message) &&
          read_count(parser, drain, out.drain_timeout_s, message))) {
        return false;
    }
    if (out.uplinks < 1 || out.modems < 1) {
        message = "--uplinks and --modems: at least 1";
        return false;
    }
    return true;
}

}  // namespace faults
