#include "bench/bench_options.h"

#include <QJsonDocument>

#include <QCommandLineParser>

#include "bench/option_values.h"

namespace bench {

namespace {

template <class T>
bool read_number(const QCommandLineParser& parser, const QCommandLineOption& option, T& out,
                 QString& message) {
    return read_option_number(parser, option, out, message);
}

}  // namespace

bool parse_options(const QStringList& arguments, bench_options& out, QString& message, bool& help) {
    QCommandLineParser parser;
    parser.setApplicationDescription(
        "Throughput, latency and memory of the uplink path (pass-through consumer and service over the "
        "same preloaded queue), and the SQLite store's fill, save and history-query figures. The last "
        "line holds the key figures as key=value pairs.");
    const QCommandLineOption help_option({"h", "help"}, "This help.");
    const QCommandLineOption url("url", "Broker URL (default: the private test broker, started if needed).",
                                 "URL");
    const QCommandLineOption quick("quick", "Tiny counts for a smoke run (explicit counts still apply).");
    const QCommandLineOption uplinks("uplinks", "Uplinks preloaded for each consumer (default 20000).", "N");
    const QCommandLineOption modems("modems", "Modems of the uplink fleet (default 1000).", "N");
    const QCommandLineOption clients("clients", "Client applications per modem (default 1).", "N");
    const QCommandLineOption rounds(
        "rounds", "Pass-through and service runs, in turn; figures are medians (default 3, 1 with --quick).",
        "N");
    const QCommandLineOption sample("sample", "Uplinks that calibrate the pass-through (default 100).", "N");
    const QCommandLineOption latency("latency-seconds", "Length of the latency run (default 10).", "S");
    const QCommandLineOption rows("rows", "Value rows of the store benchmark (default 1000000).", "N");
    const QCommandLineOption store_modems("store-modems", "Modems of the store benchmark (default 10000).",
                                          "N");
    const QCommandLineOption saves("saves", "Uplinks saved into the filled store (default 2000).", "N");
    const QCommandLineOption queries("queries", "History queries timed (default 20).", "N");
    const QCommandLineOption no_store("no-store", "Skip the store benchmark.");
    const QCommandLineOption no_uplinks("no-uplinks", "Skip the uplink-path benchmark.");
    const QCommandLineOption no_passthrough(
        "no-passthrough",
        "Measure the service alone (no pass-through runs, so no ratio): for long memory runs.");
    const QCommandLineOption stop_broker("stop-broker", "Stop the private broker if this run started it.");
    const QCommandLineOption store_config(
        "store-config",
        "Extra keys of the service's SQLite store configuration, as a JSON object, e.g. "
        "'{\"checkpoint_pages\": 4000}'.",
        "JSON");
    const QCommandLineOption store_backend(
        "store",
        "The service's store: sqlite (default) or postgres (a fresh schema on the server of --pg-conninfo, "
        "else on the private test server of scripts/test-postgres, started if needed). With postgres the "
        "SQLite store benchmark is skipped.",
        "NAME");
    const QCommandLineOption pg_conninfo("pg-conninfo", "libpq connection string of the PostgreSQL server.",
                                         "CONNINFO");
    const QCommandLineOption instances(
        "instances",
        "Also measure the throughput of 1, 2 .. N instances sharing the uplinks through the balancer "
        "(each with its own queue; each its own SQLite file, or all one PostgreSQL schema).",
        "N");
    parser.addOptions({help_option,   url,         quick,      uplinks,        modems,       clients,
                       rounds,        sample,      latency,    rows,           store_modems, saves,
                       queries,       no_store,    no_uplinks, no_passthrough, stop_broker,  store_config,
                       store_backend, pg_conninfo, instances});
    if (!parser.parse(arguments)) {
        message = parser.errorText();
        return false;
    }
    help = parser.isSet(help_option);
    if (help) {
        message = parser.helpText();
        return false;
    }
    out = bench_options{};
    if (parser.isSet(quick)) {
        out.quick = true;
        out.uplinks = 300;
        out.rounds = 1;
        out.modems = 20;
        out.sample = 20;
        out.latency_s = 2;
        out.rows = 20000;
        out.store_modems = 500;
        out.saves = 100;
        out.queries = 3;
    }
    out.url = parser.value(url);
    out.store = !parser.isSet(no_store);
    out.uplink_path = !parser.isSet(no_uplinks);
    out.stop_broker = parser.isSet(stop_broker);
    out.passthrough = !parser.isSet(no_passthrough);
    if (parser.isSet(store_backend)) {
        out.store_backend = parser.value(store_backend);
        if (out.store_backend != "sqlite" && out.store_backend != "postgres") {
            message = "--store: sqlite or postgres, not " + out.store_backend;
            return false;
        }
        if (out.store_backend == "postgres") {
            out.store = false;
        }
    }
    out.pg_conninfo = parser.value(pg_conninfo);
    if (parser.isSet(store_config)) {
        const QJsonDocument doc = QJsonDocument::fromJson(parser.value(store_config).toUtf8());
        if (!doc.isObject()) {
            message = "--store-config: not a JSON object: " + parser.value(store_config);
            return false;
        }
        out.store_config = doc.object();
    }
    const bool read = read_number(parser, uplinks, out.uplinks, message) &&
                      read_number(parser, modems, out.modems, message) &&
                      read_number(parser, clients, out.clients, message) &&
                      read_option_number(parser, rounds, out.rounds, message, true) &&
                      read_number(parser, sample, out.sample, message) &&
                      read_number(parser, latency, out.latency_s, message) &&
                      read_number(parser, rows, out.rows, message) &&
                      read_number(parser, store_modems, out.store_modems, message) &&
                      read_number(parser, saves, out.saves, message) &&
                      read_number(parser, queries, out.queries, message) &&
                      read_number(parser, instances, out.instances, message);
    if (read && out.clients < 1) {
        message = "--clients: at least 1";
        return false;
    }
    if (read && out.rounds < 1) {
        message = "--rounds: at least 1";
        return false;
    }
    return read;
}

}  // namespace bench
