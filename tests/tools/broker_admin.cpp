#include "tests/tools/broker_admin.h"

#include "tests/support/service_harness.h"

namespace tools_test {

broker_admin::broker_admin() : m_link(e2e::broker_url(), "/api", false) {
    m_connected = m_link.open(10000);
}

int64_t broker_admin::message_count(const QString& name) {
    uint32_t messages = 0;
    uint32_t consumers = 0;
    return m_link.queue_counts(name, messages, consumers) ? int64_t(messages) : -1;
}

}  // namespace tools_test
