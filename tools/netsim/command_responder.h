#pragma once

#include <QJsonObject>
#include <QObject>
#include <QString>
#include <QTimer>
#include <memory>

#include "app/logger.h"
#include "meter_model.h"
#include "uplink_history.h"

class rabbit_publisher_impl;
class rabbit_receiver;

// The network server's command side: consumes the commands sent to "cmd.in.netcore"
// from a temporary queue, answers each request envelope with a "response" to its
// sender, reports every "dl" as queued, in process and then executed (or failed) on the
// modem's uplink key, and publishes the kept uplinks again for "get_ul_history".
class command_responder : public QObject {
    Q_OBJECT
public:
    struct settings {
        QString url;
        QString vhost = "/api";
        QString exchange = "norvik.api";
        QString instance = "marl2";
        QString protocol = "proto7";
        QString ul_route_key = "ul";
        double fault_ratio = 0;  // share of downlinks that end with "dl_fault"
        int report_delay_ms = 200;
        quint32 seed = 1;
    };

    command_responder(logger& log, const settings& config, rabbit_publisher_impl& publisher,
                      const uplink_history& history, netsim_counters& counters, QObject* parent = nullptr);
    ~command_responder() override;
    Q_DISABLE_COPY(command_responder)

    // The queue is bound and consuming (a message sent to ourselves came back).
    bool is_ready() const { return m_ready; }
    // Downlinks whose last report is still to come.
    int pending_downlinks() const { return m_pending; }

Q_SIGNALS:
    void ready();

private:
    void on_message(const QByteArray& payload, const QString& routing_key, uint64_t tag);
    void answer_downlink(const QJsonObject& data);
    qint64 answer_history(const QJsonObject& data);
    void respond(const QJsonObject& request, const QJsonObject& data);
    void report(int modem_id, const QString& status_id, const QString& type);
    void publish(const QString& routing_key, const QJsonObject& message);
    void ping();

    logger& m_log;
    settings m_config;
    rabbit_publisher_impl& m_publisher;
    const uplink_history& m_history;
    netsim_counters& m_counters;
    std::unique_ptr<rabbit_receiver> m_receiver;
    QString m_ping_key;
    QTimer m_ping_timer;
    bool m_ready = false;
    int m_pending = 0;
    netsim::sim_random m_random;
};
