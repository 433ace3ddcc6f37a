#pragma once

#include <QString>
#include <memory>

#include "metrics/http_endpoint.h"
#include "metrics/service_metrics.h"

// Serves the service's metrics (/metrics, Prometheus text format) and health (/health)
// over HTTP on its own thread. Throws std::runtime_error when it cannot listen.
std::unique_ptr<http_endpoint> serve_metrics(std::shared_ptr<const service_metrics> metrics,
                                             const QString& address, int port);
