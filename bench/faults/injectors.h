#pragma once

#include <QElapsedTimer>
#include <QString>
#include <QStringList>

#include "amqp/broker_link.h"
#include "bench/faults/broker_control.h"
#include "bench/faults/faults_report.h"

namespace bench {
class service_instance;
}  // namespace bench

namespace faults {

// The faults of a run, one call each. Each returns once the service consumes its
// uplink queue again (or the wait is up: that goes to `problems`), so that every fault
// hits a working service. What was done is counted in the tally.
class injectors {
public:
    struct target {
        bench::service_instance* service = nullptr;
        QString uplink_queue;
        QString client_exchange;
        QString store_path;
    };

    injectors(const target& where, amqp::broker_link& admin, broker_control& control, fault_tally& tally,
              QStringList& problems);
    injectors(const injectors&) = delete;
    injectors& operator=(const injectors&) = delete;

    // Waits for a consumer on the uplink queue; false (with a problem noted) when none
    // comes in time. The wait counts from the end of the last fault (the broker back,
    // the connections closed, the service killed or stopped).
    bool wait_consuming(const QString& after, int timeout_ms = 60000);

    void restart_broker();
    void close_connections();
    void kill_service();
    void drop_exchange();
    // Restarts the service (orderly) with the store limited to a few pages beyond its
    // present size, or with the limit lifted.
    void limit_store(bool full);
    // Stops cluster node k, or starts it again (it rejoins the cluster by itself).
    void stop_node(int k);
    void start_node(int k);

private:
    // Waits until the broker has seen the service's consumer go.
    void wait_consumer_gone(int timeout_ms = 5000);
    void note(const QString& problem);
    void begin_fault() { m_fault_clock.restart(); }  // the fault is done: the wait begins

    target m_target;
    amqp::broker_link& m_admin;
    broker_control& m_control;
    fault_tally& m_tally;
    QStringList& m_problems;
    QElapsedTimer m_fault_clock;
};

}  // namespace faults
