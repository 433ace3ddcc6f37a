// The HTTP endpoint over a real socket: paths, methods, status codes, content types.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <string>

#include "metrics/http_endpoint.h"
#include "metrics/metrics_server.h"

namespace {

// Sends one HTTP/1.0 request and returns the whole answer (status line, headers, body).
std::string request(int port, const std::string& text) {
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(uint16_t(port));
    inet_pton(AF_INET, "127.0.0.1", &address.sin_addr);
    if (connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
        close(fd);
        return "connect failed";
    }
    (void)!write(fd, text.data(), text.size());
    std::string answer;
    char buffer[4096];
    ssize_t n;
    while ((n = read(fd, buffer, sizeof buffer)) > 0) {
        answer.append(buffer, size_t(n));
    }
    close(fd);
    return answer;
}

std::string get(int port, const std::string& path) {
    return request(port, "GET " + path + " HTTP/1.0\r\nHost: localhost\r\n\r\n");
}

// The status code of the answer's status line ("HTTP/1.x 200 OK" gives 200).
int status_of(const std::string& answer) {
    const std::size_t space = answer.find(' ');
    return space == std::string::npos ? 0 : std::atoi(answer.c_str() + space + 1);
}

std::string body_of(const std::string& answer) {
    const std::size_t at = answer.find("\r\n\r\n");
    return at == std::string::npos ? std::string() : answer.substr(at + 4);
}

class Endpoint : public ::testing::Test {
protected:
    void SetUp() override {
        m_endpoint = std::make_unique<http_endpoint>(
            [] {
                return http_endpoint::response{200, "text/plain; version=0.0.4; charset=utf-8",
                                               "a_total 1\n"};
            },
            [this] {
                return m_healthy ? http_endpoint::response{200, "application/json", "{\"status\":\"up\"}"}
                                 : http_endpoint::response{503, "application/json", "{\"status\":\"down\"}"};
            });
        ASSERT_TRUE(m_endpoint->start("127.0.0.1", 0)) << m_endpoint->error().toStdString();
        m_port = m_endpoint->port();
        ASSERT_GT(m_port, 0);
    }

    std::unique_ptr<http_endpoint> m_endpoint;
    std::atomic<bool> m_healthy{true};
    int m_port = 0;
};

TEST_F(Endpoint, ServesMetricsWithTheFormatsContentType) {
    const std::string answer = get(m_port, "/metrics");
    EXPECT_EQ(status_of(answer), 200) << answer;
    EXPECT_NE(answer.find("Content-Type: text/plain; version=0.0.4; charset=utf-8\r\n"), std::string::npos)
        << answer;
    EXPECT_EQ(body_of(answer), "a_total 1\n");
}

TEST_F(Endpoint, HealthIs503WhileSomethingIsDown) {
    EXPECT_EQ(status_of(get(m_port, "/health")), 200);
    m_healthy = false;
    const std::string answer = get(m_port, "/health");
    EXPECT_EQ(status_of(answer), 503) << answer;
    EXPECT_EQ(body_of(answer), "{\"status\":\"down\"}");
    m_healthy = true;
    EXPECT_EQ(status_of(get(m_port, "/health")), 200);
}

TEST_F(Endpoint, OtherPathsAndMethodsAreRefused) {
    EXPECT_EQ(status_of(get(m_port, "/")), 404);
    EXPECT_EQ(status_of(get(m_port, "/metrics/x")), 404);
    const std::string post = request(m_port, "POST /metrics HTTP/1.0\r\nContent-Length: 3\r\n\r\nabc");
    EXPECT_EQ(status_of(post), 405) << post;
    EXPECT_NE(post.find("Allow: GET, HEAD"), std::string::npos) << post;
    // HEAD: the headers alone.
    const std::string head = request(m_port, "HEAD /metrics HTTP/1.0\r\n\r\n");
    EXPECT_EQ(status_of(head), 200);
    EXPECT_EQ(body_of(head), "");
}

TEST_F(Endpoint, ATakenPortOrABadAddressIsAnError) {
    http_endpoint second([] { return http_endpoint::response{}; }, [] { return http_endpoint::response{}; });
    EXPECT_FALSE(second.start("127.0.0.1", m_port));
    EXPECT_FALSE(second.error().isEmpty());
    EXPECT_FALSE(second.start("localhost", 0));  // a host name, not an address
    EXPECT_NE(second.error().indexOf("not an IPv4 or IPv6 address"), -1) << second.error().toStdString();
    EXPECT_FALSE(second.start("127.0.0.1", 70000));
    EXPECT_THROW(serve_metrics(std::make_shared<service_metrics>(), "127.0.0.1", m_port), std::runtime_error);
}

TEST(EndpointAddress, ListensOnAnIPv6Address) {
    http_endpoint endpoint(
        [] {
            return http_endpoint::response{200, "text/plain", "six\n"};
        },
        [] { return http_endpoint::response{}; });
    if (!endpoint.start("::1", 0)) {
        GTEST_SKIP() << "no IPv6 loopback here: " << endpoint.error().toStdString();
    }
    const int fd = socket(AF_INET6, SOCK_STREAM, 0);
    sockaddr_in6 address{};
    address.sin6_family = AF_INET6;
    address.sin6_port = htons(uint16_t(endpoint.port()));
    inet_pton(AF_INET6, "::1", &address.sin6_addr);
    ASSERT_EQ(connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    const std::string request = "GET /metrics HTTP/1.0\r\n\r\n";
    (void)!write(fd, request.data(), request.size());
    std::string answer;
    char buffer[1024];
    ssize_t n;
    while ((n = read(fd, buffer, sizeof buffer)) > 0) {
        answer.append(buffer, size_t(n));
    }
    close(fd);
    EXPECT_EQ(status_of(answer), 200);
    EXPECT_EQ(body_of(answer), "six\n");
    // Not on the IPv4 loopback.
    EXPECT_EQ(get(endpoint.port(), "/metrics"), "connect failed");
}

TEST(MetricsServer, ServesTheCatalogAndTheHealth) {
    auto metrics = std::make_shared<service_metrics>();
    auto endpoint = serve_metrics(metrics, "127.0.0.1", 0);
    const int port = endpoint->port();
    metrics->count_uplink(service_metrics::uplink_type::ul_app, service_metrics::uplink_outcome::acked);
    const std::string text = body_of(get(port, "/metrics"));
    EXPECT_NE(text.find("quillon_uplinks_total{type=\"ul_app\",outcome=\"acked\"} 1\n"), std::string::npos)
        << text;
    EXPECT_NE(text.find("\nprocess_resident_memory_bytes "), std::string::npos) << text;
    EXPECT_NE(text.find("\nprocess_open_fds "), std::string::npos) << text;
    const std::string health = get(port, "/health");
    EXPECT_EQ(status_of(health), 503) << health;  // no link is up here
    EXPECT_NE(health.find("Content-Type: application/json"), std::string::npos);
}

}  // namespace
