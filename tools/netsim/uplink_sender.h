#pragma once

#include <QDateTime>
#include <QElapsedTimer>
#include <QObject>
#include <QString>
#include <QTimer>
#include <vector>

#include "meter_fleet.h"
#include "uplink_history.h"

class rabbit_publisher_impl;

// Publishes the fleet's uplinks, modem after modem, at a steady rate or as fast as the
// broker takes them, with a heartbeat per modem after every K of its uplinks. Every
// uplink is kept in the history for later requests.
class uplink_sender : public QObject {
    Q_OBJECT
public:
    struct settings {
        QString instance = "marl2";
        QString protocol = "proto7";
        QString ul_route_key = "ul";
        int balancer = 0;  // > 0: the owner's balancer key among this many instances
        QString balancer_key = "balancer";
        QString hw_type;  // empty: by meter type
        int modems = 10;
        int first_modem = 1;
        double rate = 1.0;  // per second
        bool fast = false;
        qint64 count = -1;  // -1: no limit
        int heartbeat_every = 0;
        quint32 seed = 1;
    };

    uplink_sender(const settings& config, rabbit_publisher_impl& publisher, uplink_history& history,
                  netsim_counters& counters, QObject* parent = nullptr);
    Q_DISABLE_COPY(uplink_sender)

    void start();
    void stop();
    // All uplinks of --count are out (at once with no modems and a count).
    bool is_done() const { return m_done; }

Q_SIGNALS:
    void done();

private:
    void tick();
    bool send_next();
    bool publish(const QJsonObject& message, int modem_id);
    void finish();

    settings m_config;
    rabbit_publisher_impl& m_publisher;
    uplink_history& m_history;
    netsim_counters& m_counters;
    netsim::meter_fleet m_fleet;
    std::vector<int> m_sent_per_modem;
    qint64 m_sent = 0;
    QTimer m_timer;
    QElapsedTimer m_clock;
    bool m_done = false;
};
