#pragma once

#include <QString>
#include <QStringList>
#include <cstdint>

namespace faults {

// What one run streams and which faults it injects while it does.
struct faults_options {
    uint64_t uplinks = 2000;    // application uplinks streamed
    int modems = 100;           // of the netsim fleet
    double rate = 400;          // uplinks a second; 0: as fast as the broker confirms them
    int broker_restarts = 0;    // broker application stopped and started again
    int closes = 0;             // rounds of forced closes of each of the service's connections
    int kills = 0;              // kill -9 of the service, then a new start
    int exchange_drops = 0;     // client exchange deleted, then declared again
    bool store_full = false;    // the store fails as on a full disk for the middle third
    int drain_timeout_s = 120;  // after the last uplink, for the service to finish
    bool stop_broker = false;   // stop the private node at the end if this run started it
    bool keep = false;          // keep the service's directory (log, store) and print it
    // Against the private three-node cluster (scripts/test-cluster) instead of the single
    // node: the uplink queue is a quorum queue led by node 2, the service and the tool talk
    // to node 1.
    bool cluster = false;
    bool node_stop = false;  // node 2 stopped from a third of the stream to two thirds
};

// Reads the command line; returns false with a message (or the help text) otherwise.
bool parse_options(const QStringList& arguments, faults_options& out, QString& message, bool& help);

}  // namespace faults
