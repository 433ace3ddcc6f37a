#pragma once

#include <QJsonObject>
#include <functional>

#include "app/logger.h"
#include "interfaces/IDriverState.h"
#include "interfaces/IMessagesDatabase.h"
#include "model/dl_queues.h"
#include "model/records.h"

// Works off one modem's downlink queues after an accepted uplink: sends at most one
// due entry and follows the outcome of those already sent.
class dl_queue_step {
public:
    // Sends a downlink built from a queue entry; returns the sender's result holding "bd_id".
    using entry_sender = std::function<QJsonObject(const model::dl_queue_entry&, model::dl_message)>;

    // `log` (optional) is told of entries whose downlink can no longer be found.
    dl_queue_step(interfaces::IDriverState& state, interfaces::IDownlinkStore& downlinks, entry_sender sender,
                  logger* log = nullptr);

    void run(int modem_id);
    // For tests: the clock in epoch seconds.
    void set_clock(std::function<qint64()> now) { m_now = std::move(now); }

private:
    enum class queue_outcome { ended_early, done, failed };

    void work(model::dl_queues& set, int modem_id);
    queue_outcome visit_entries(model::dl_queue& queue, int modem_id);
    // Follows a sent entry; true when it is still pending.
    bool follow_sent_entry(model::dl_queue_entry& entry, int modem_id);
    void send(model::dl_queue_entry& entry, const model::dl_queue& queue, int modem_id);

    interfaces::IDriverState& m_state;
    interfaces::IDownlinkStore& m_downlinks;
    entry_sender m_sender;
    std::function<qint64()> m_now;
    logger* m_log = nullptr;
};
