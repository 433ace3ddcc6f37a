#include "metrics/metrics_server.h"

#include <stdexcept>

#include "metrics/text_format.h"

std::unique_ptr<http_endpoint> serve_metrics(std::shared_ptr<const service_metrics> metrics,
                                             const QString& address, int port) {
    auto endpoint = std::make_unique<http_endpoint>(
        [metrics] {
            const std::string text = metrics::write_text(metrics->registry().collect());
            return http_endpoint::response{200, metrics::text_content_type,
                                           QByteArray(text.data(), int(text.size()))};
        },
        [metrics] {
            const service_metrics::health_report report = metrics->health();
            return http_endpoint::response{report.healthy ? 200 : 503, "application/json", report.body};
        });
    if (!endpoint->start(address, port)) {
        throw std::runtime_error(
            QString("METRICS_ADDRESS/METRICS_PORT cannot be used: %1").arg(endpoint->error()).toStdString());
    }
    return endpoint;
}
