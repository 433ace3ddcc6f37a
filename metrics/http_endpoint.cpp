#include "metrics/http_endpoint.h"

#include <arpa/inet.h>
#include <microhttpd.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>

namespace {

MHD_Result answer_connection(void* cls, MHD_Connection* connection, const char* url, const char* method,
                             const char* /*version*/, const char* /*upload_data*/, size_t* upload_size,
                             void** request_state) {
    // The first call announces the request's headers; answer on the second.
    static int headers_seen;
    if (*request_state != &headers_seen) {
        *request_state = &headers_seen;
        return MHD_YES;
    }
    if (*upload_size != 0) {
        *upload_size = 0;  // a body is not wanted: read and forgotten
        return MHD_YES;
    }
    const auto& endpoint = *static_cast<const http_endpoint*>(cls);
    const http_endpoint::response r = endpoint.answer(method, url);
    MHD_Response* response = MHD_create_response_from_buffer(
        size_t(r.body.size()), const_cast<char*>(r.body.constData()), MHD_RESPMEM_MUST_COPY);
    if (!response) {
        return MHD_NO;
    }
    MHD_add_response_header(response, MHD_HTTP_HEADER_CONTENT_TYPE, r.content_type.constData());
    MHD_add_response_header(response, MHD_HTTP_HEADER_CACHE_CONTROL, "no-store");
    if (r.status == MHD_HTTP_METHOD_NOT_ALLOWED) {
        MHD_add_response_header(response, MHD_HTTP_HEADER_ALLOW, "GET, HEAD");
    }
    const MHD_Result queued = MHD_queue_response(connection, unsigned(r.status), response);
    MHD_destroy_response(response);
    return queued;
}

http_endpoint::response text(int status, const char* body) {
    return {status, "text/plain; charset=utf-8", QByteArray(body)};
}

}  // namespace

http_endpoint::http_endpoint(source metrics, source health)
    : m_metrics(std::move(metrics)), m_health(std::move(health)) {}

http_endpoint::~http_endpoint() {
    stop();
}

bool http_endpoint::start(const QString& address, int port) {
    stop();
    if (port < 0 || port > 65535) {
        m_error = QString("port %1 is out of range").arg(port);
        return false;
    }
    sockaddr_storage storage{};
    unsigned flags = MHD_USE_INTERNAL_POLLING_THREAD;
    const QByteArray host = address.toLatin1();
    auto* v4 = reinterpret_cast<sockaddr_in*>(&storage);
    auto* v6 = reinterpret_cast<sockaddr_in6*>(&storage);
    if (inet_pton(AF_INET, host.constData(), &v4->sin_addr) == 1) {
        v4->sin_family = AF_INET;
        v4->sin_port = htons(uint16_t(port));
    } else if (inet_pton(AF_INET6, host.constData(), &v6->sin6_addr) == 1) {
        v6->sin6_family = AF_INET6;
        v6->sin6_port = htons(uint16_t(port));
        flags |= MHD_USE_IPv6;
    } else {
        m_error = QString("\"%1\" is not an IPv4 or IPv6 address").arg(address);
        return false;
    }
    errno = 0;
    // The port argument is ignored when an address is given; the address carries it.
    m_daemon = MHD_start_daemon(flags, uint16_t(port), nullptr, nullptr, &answer_connection, this,
                                MHD_OPTION_SOCK_ADDR, reinterpret_cast<sockaddr*>(&storage),
                                MHD_OPTION_CONNECTION_LIMIT, 16u, MHD_OPTION_CONNECTION_TIMEOUT, 10u,
                                MHD_OPTION_END);
    if (!m_daemon) {
        m_error = QString("cannot listen on %1 port %2: %3")
                      .arg(address)
                      .arg(port)
                      .arg(errno ? QString::fromLocal8Bit(std::strerror(errno)) : QString("refused"));
        return false;
    }
    m_port = port;
    if (const MHD_DaemonInfo* info = MHD_get_daemon_info(m_daemon, MHD_DAEMON_INFO_BIND_PORT)) {
        m_port = info->port;
    }
    m_error.clear();
    return true;
}

void http_endpoint::stop() {
    if (m_daemon) {
        MHD_stop_daemon(m_daemon);
        m_daemon = nullptr;
    }
}

http_endpoint::response http_endpoint::answer(const char* method, const char* url) const {
    const bool get = std::strcmp(method, "GET") == 0 || std::strcmp(method, "HEAD") == 0;
    const bool metrics = std::strcmp(url, "/metrics") == 0;
    const bool health = std::strcmp(url, "/health") == 0;
    if (!metrics && !health) {
        return text(404, "not found: try /metrics or /health\n");
    }
    if (!get) {
        return text(405, "only GET\n");
    }
    return metrics ? m_metrics() : m_health();
}
