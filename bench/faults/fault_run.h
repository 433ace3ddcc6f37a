#pragma once

#include <QString>
#include <QTextStream>
#include <memory>
#include <vector>

#include "amqp/broker_link.h"
#include "bench/broker.h"
#include "bench/faults/broker_control.h"
#include "bench/faults/faults_options.h"
#include "bench/faults/faults_report.h"
#include "bench/faults/ledger.h"
#include "bench/service_instance.h"
#include "bench/uplink_feed.h"

namespace faults {

// One run: the private broker, the service on a fresh SQLite store, a stream of uplinks
// with the faults spread over it, the drain, and the accounting.
class fault_run {
public:
    fault_run(const faults_options& options, QTextStream& progress);
    ~fault_run();
    fault_run(const fault_run&) = delete;
    fault_run& operator=(const fault_run&) = delete;

    // False when the run could not be made (no broker, no service); the reason is in
    // error(). The report is filled either way as far as the run went.
    bool run();
    const run_report& report() const { return m_report; }
    const QString& error() const { return m_error; }

private:
    enum class fault {
        broker_restart,
        close,
        kill,
        exchange_drop,
        store_full,
        store_space,
        node_stop,
        node_start
    };
    struct planned {
        uint64_t at = 0;  // injected once this many uplinks are sent
        fault what = fault::kill;
    };

    bool set_up();
    bool open_cluster();
    // Declares the uplink queue, through cluster node 2 when there is a cluster (so that
    // node leads it).
    bool declare_uplink_queue(const rabbit_receiver_cfg& queue);
    std::vector<planned> plan() const;
    bool stream();
    void drain();
    void account();
    void clean_up();

    faults_options m_options;
    QTextStream& m_progress;
    bench::broker m_broker;
    broker_control m_control;
    std::unique_ptr<amqp::broker_link> m_admin;
    std::unique_ptr<amqp::broker_link> m_sender_link;
    std::unique_ptr<bench::service_instance> m_service;
    bench::uplink_feed m_feed;
    QString m_run;
    QString m_uplink_queue;
    QString m_uplink_exchange;
    QString m_route_key;
    QString m_client_exchange;
    QString m_rejected_queue;
    QString m_store_path;
    ledger m_book;
    run_report m_report;
    QString m_leader_url;  // cluster node 2
    QString m_error;
};

}  // namespace faults
