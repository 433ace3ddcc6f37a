#pragma once

#include <QJsonObject>
#include <QString>
#include <QStringList>
#include <cstdint>

namespace bench {

struct bench_options {
    QString url;  // empty: the private test broker
    bool quick = false;
    uint64_t uplinks = 20000;  // preloaded for each consumer
    int modems = 1000;         // of the uplink fleet
    int clients = 1;           // client applications per modem
    int rounds = 3;            // pass-through and service runs, in turn
    int sample = 100;          // uplinks of the service's run that calibrate the pass-through
    double latency_s = 10;     // length of the latency run
    uint64_t rows = 1000000;   // value rows of the store benchmark
    int store_modems = 10000;
    int saves = 2000;  // uplinks saved one by one into the filled store
    int queries = 20;  // history queries timed after the first
    bool uplink_path = true;
    bool store = true;
    bool stop_broker = false;
    bool passthrough = true;  // false: the service alone (long memory runs)
    // Extra keys of the service's store configuration (a JSON object).
    QJsonObject store_config;
    // The service's store: "sqlite" (a file of each service's own) or "postgres" (one
    // schema of the server at pg_conninfo, or of the private test server when empty).
    QString store_backend = "sqlite";
    QString pg_conninfo;
    int instances = 0;  // > 0: throughput with 1 .. instances balanced instances
};

// Reads the command line; returns false with a message (or the help text) otherwise.
bool parse_options(const QStringList& arguments, bench_options& out, QString& message, bool& help);

}  // namespace bench
