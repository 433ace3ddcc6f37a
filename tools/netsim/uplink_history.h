#pragma once

#include <QHash>
#include <QJsonObject>
#include <QList>
#include <deque>
#include <vector>

// What the simulator published, per modem, so that it can deliver it again when the
// service asks for a modem's history. Only the newest `per_modem` messages of each
// modem are kept.
class uplink_history {
public:
    explicit uplink_history(int per_modem = 1000);

    struct entry {
        int modem_id = 0;
        qint64 time = 0;  // "time_detected", seconds
        QJsonObject message;
    };

    void add(int modem_id, qint64 time, const QJsonObject& message);
    // The kept messages of these modems whose time lies in [from, to], modem by modem
    // in the order given, oldest first within a modem; at most `limit` in all.
    std::vector<entry> select(const QList<int>& modem_ids, qint64 from, qint64 to, qint64 limit) const;
    int size(int modem_id) const;

private:
    int m_per_modem;
    QHash<int, std::deque<entry>> m_entries;
};

// What the simulator did so far: the progress lines and the summary show it.
struct netsim_counters {
    qint64 uplinks = 0;
    qint64 heartbeats = 0;
    qint64 dropped = 0;  // not published: the broker link was down
    qint64 downlinks = 0;
    qint64 downlink_faults = 0;
    qint64 history_requests = 0;
    qint64 history_messages = 0;
};
