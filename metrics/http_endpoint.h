#pragma once

#include <QByteArray>
#include <QString>
#include <functional>
#include <memory>

struct MHD_Daemon;

// A small HTTP server on a thread of its own (libmicrohttpd): GET /metrics answers the
// text the metrics source gives, GET /health the health source's JSON with 200 when
// healthy, else 503. It only reads what the event loop published; it never calls into
// the loop's objects.
class http_endpoint {
public:
    struct response {
        int status = 200;
        QByteArray content_type;
        QByteArray body;
    };
    using source = std::function<response()>;

    http_endpoint(source metrics, source health);
    ~http_endpoint();
    http_endpoint(const http_endpoint&) = delete;
    http_endpoint& operator=(const http_endpoint&) = delete;

    // Listens on the address (IPv4 or IPv6 literal) and port; false with error() set when
    // it cannot. Port 0 asks the system for a free port (port() tells which).
    bool start(const QString& address, int port);
    void stop();
    int port() const { return m_port; }
    const QString& error() const { return m_error; }

    // Answers one request; public for the daemon's callback.
    response answer(const char* method, const char* url) const;

private:
    source m_metrics;
    source m_health;
    MHD_Daemon* m_daemon = nullptr;
    int m_port = 0;
    QString m_error;
};
