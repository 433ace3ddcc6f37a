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
    QString exchange;
    QString key;  // routing key of the service's command queue

    int timeout_s = 10;
    int connect_timeout_s = 5;
    bool plain = false;
    bool envelope = false;  // print the whole response, not only its "data"
    bool verbose = false;
};

// Reads the arguments (argv[0] first). Throws tool::usage_error on a bad command line.
invocation read_invocation(const QStringList& arguments);

}  // namespace cli
