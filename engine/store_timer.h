#pragma once

#include <chrono>
#include <exception>

#include "metrics/service_metrics.h"

// Times one store call for quillon_store_seconds; a call left by an exception also counts
// as a store error.
class store_timer {
public:
    store_timer(service_metrics& metrics, service_metrics::store_operation operation)
        : m_metrics(metrics), m_operation(operation) {}
    ~store_timer() {
        const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - m_start;
        m_metrics.store_seconds(m_operation).observe(elapsed.count());
        if (std::uncaught_exceptions() > m_exceptions) {
            m_metrics.store_errors().inc();
        }
    }
    store_timer(const store_timer&) = delete;
    store_timer& operator=(const store_timer&) = delete;

private:
    service_metrics& m_metrics;
    service_metrics::store_operation m_operation;
    int m_exceptions = std::uncaught_exceptions();
    std::chrono::steady_clock::time_point m_start = std::chrono::steady_clock::now();
};
