#pragma once

#include <QString>

namespace amqp {

// The parts of an amqp:// or amqps:// URL: amqp[s]://user:password@host:port/vhost.
struct url_parts {
    bool valid = false;
    QString error;  // why the URL was refused, when not valid
    bool tls = false;
    QString host;
    int port = 0;
    QString user = "guest";
    QString password = "guest";
    QString vhost = "/";  // the path without its leading "/", percent-decoded; "/" when empty

    static url_parts parse(const QString& url);
};

}  // namespace amqp
