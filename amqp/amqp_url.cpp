#include "amqp/amqp_url.h"

#include <QUrl>

namespace amqp {

namespace {
constexpr int amqp_port = 5672;
constexpr int amqps_port = 5671;
}  // namespace

url_parts url_parts::parse(const QString& url) {
    url_parts parts;
    // Tolerant, as Qt parses by default: a password may hold a raw "%" or blank as well
    // as their percent-encoded forms.
    const QUrl parsed(url, QUrl::TolerantMode);
    if (!parsed.isValid()) {
        // Qt's text quotes the URL ("source was ..."): never let the password out with it.
        QString why = parsed.errorString();
        const int source = why.indexOf("; source was");
        if (source >= 0) {
            why.truncate(source);
        }
        parts.error = "malformed URL: " + why;
        return parts;
    }
    const QString scheme = parsed.scheme().toLower();
    if (scheme == "amqps") {
        parts.tls = true;
    } else if (scheme != "amqp") {
        parts.error = "unsupported scheme \"" + parsed.scheme() + "\" (amqp or amqps expected)";
        return parts;
    }
    parts.host = parsed.host(QUrl::FullyDecoded);
    if (parts.host.isEmpty()) {
        parts.host = "localhost";
    }
    parts.port = parsed.port(parts.tls ? amqps_port : amqp_port);
    if (!parsed.userName().isEmpty()) {
        parts.user = parsed.userName(QUrl::FullyDecoded);
        parts.password = parsed.password(QUrl::FullyDecoded);
    }
    // "amqp://host/%2Fapi" names the vhost "/api"; "amqp://host" and "amqp://host/" the default "/".
    QString path = parsed.path(QUrl::FullyEncoded);
    if (path.startsWith('/')) {
        path.remove(0, 1);
    }
    if (!path.isEmpty()) {
        parts.vhost = QUrl::fromPercentEncoding(path.toLatin1());
    }
    parts.valid = true;
    return parts;
}

}  // namespace amqp
