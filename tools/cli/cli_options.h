#pragma once

#include <QJsonObject>
#include <QString>
#include <QStringList>

namespace cli {

// Everything one run of quillon-cli needs, from its command line and the service's
// configuration file.
struct invocation {
    bool help = false;
    QString help_text;

    QString command;
    QJsonObject body;

    QString url;
    QString vhost;
    QString exchange;  // the command exchange; for replay the exchange messages go back to
    QString key;       // routing key of the service's command queue

    int timeout_s = 10;
    int connect_timeout_s = 5;
    bool plain = false;
    bool envelope = false;  // print the whole response, not only its "data"
    bool verbose = false;

    // replay: moves dead-lettered messages back to the uplink exchange.
    bool replay = false;
    QString queue;
    int count = 0;  // 0: all that are in the queue when the run starts
    bool dry_run = false;
    int heartbeat_s = 10;
    QString ca_cert;
};

// Reads the arguments (argv[0] first). Throws tool::usage_error on a bad command line.
invocation read_invocation(const QStringList& arguments);

}  // namespace cli
