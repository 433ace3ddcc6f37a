#pragma once

#include <QJsonObject>
#include <QString>
#include <map>

namespace model {

enum dl_queue_status : int { NONE = 0, DONE = 1, WAIT = 2, FAIL = 3, OUTDATE = 4 };

struct dl_queue_entry {
    QJsonObject data;
    QString db_id;
    int repeat = 0;
    int status = NONE;
    QString type;
    int dl_phy = 63;
    int station_id = 0;
    int frequency = 0;
    int f_ack = 1;
    int f_system = 0;

    bool operator==(const dl_queue_entry& o) const;
    bool operator!=(const dl_queue_entry& o) const { return !(*this == o); }
};

struct dl_queue {
    int repeat = 0;
    int start_from = 0;
    int start_ts = 0;
    int ttl = 0;
    bool lock = false;
    int status = NONE;
    int timeout = 0;
    std::map<QString, dl_queue_entry> entries;  // ordered by entry key

    bool operator==(const dl_queue& o) const;
    bool operator!=(const dl_queue& o) const { return !(*this == o); }
};

// The whole downlink-queue set of one modem.
struct dl_queues {
    std::map<QString, dl_queue> dl;  // ordered by queue name
    int status = NONE;
    bool lock = false;

    bool operator==(const dl_queues& o) const;
    bool operator!=(const dl_queues& o) const { return !(*this == o); }
};

}  // namespace model
