#include "engine/dl_queue_step.h"

#include <QDateTime>
#include <algorithm>

#include "engine/engine_services.h"

namespace {
bool may_outdate(int status) {
    return status == model::NONE || status == model::WAIT || status == model::OUTDATE;
}
}  // namespace

dl_queue_step::dl_queue_step(interfaces::IDriverState& state, interfaces::IDownlinkStore& downlinks,
                             entry_sender sender, logger* log)
    : m_state(state),
      m_downlinks(downlinks),
      m_sender(std::move(sender)),
      m_now([] { return QDateTime::currentSecsSinceEpoch(); }),
      m_log(log) {}

void dl_queue_step::run(int modem_id) {
    const auto guard = m_state.lock(modem_id);
    model::dl_queues set = m_state.queues().load(modem_id);
    const model::dl_queues unchanged = set;
    if (!set.lock) {
        work(set, modem_id);
    }
    if (set != unchanged) {
        m_state.queues().save(modem_id, set, 1);
    }
}

void dl_queue_step::work(model::dl_queues& set, int modem_id) {
    if (set.dl.empty()) {
        set.status = model::DONE;
        return;
    }
    bool any_failed = false;
    for (auto& [name, queue] : set.dl) {
        const qint64 now = m_now();
        if (!(now > queue.start_from) || queue.lock) {
            continue;
        }
        if (queue.start_ts < 100) {
            queue.start_ts = static_cast<int>(now);
        }
        if (static_cast<qint64>(queue.start_ts) + queue.ttl < now && may_outdate(queue.status)) {
            queue.status = model::OUTDATE;
            continue;
        }
        switch (visit_entries(queue, modem_id)) {
            case queue_outcome::ended_early:
                queue.status = model::WAIT;
                set.status = model::WAIT;
                return;
            case queue_outcome::failed:
                queue.status = model::FAIL;
                any_failed = true;
                break;
            case queue_outcome::done:
                queue.status = model::DONE;
                break;
        }
    }
    set.status = any_failed ? model::FAIL : model::DONE;
}

dl_queue_step::queue_outcome dl_queue_step::visit_entries(model::dl_queue& queue, int modem_id) {
    bool failed = false;
    for (auto& [key, entry] : queue.entries) {
        if (entry.db_id.isEmpty() && entry.status != model::FAIL) {
            send(entry, queue, modem_id);
            return queue_outcome::ended_early;
        }
        if (entry.status == model::WAIT && follow_sent_entry(entry, modem_id)) {
            return queue_outcome::ended_early;
        }
        if (entry.status == model::NONE || entry.status == model::FAIL) {
            if (entry.repeat < queue.repeat) {
                send(entry, queue, modem_id);
                return queue_outcome::ended_early;
            }
            failed = true;
        }
    }
    return failed ? queue_outcome::failed : queue_outcome::done;
}

bool dl_queue_step::follow_sent_entry(model::dl_queue_entry& entry, int modem_id) {
    model::dl_message message;
    try {
        message = m_downlinks.get(entry.db_id);
    } catch (const QString& not_found) {
        // Expired or removed: its outcome can never be known. The entry fails (and is sent
        // again while repeats are left) instead of stopping every later uplink of the modem.
        if (m_log) {
            log_line(*m_log, Warning) << "DL queue of modem " << QString::number(modem_id) << ": "
                                      << not_found << "; its entry fails";
        }
        entry.status = model::FAIL;
        return false;
    }
    if (message.timestamp.addSecs(message.timeout).toSecsSinceEpoch() < m_now()) {
        m_downlinks.set_status(entry.db_id, model::TIMEOUT);
        entry.status = model::FAIL;
        return false;
    }
    switch (message.dl_status) {
        case model::EXECUTED:
            entry.status = model::DONE;
            return false;
        case model::TIMEOUT:
            entry.status = model::FAIL;
            return false;
        default:
            return true;
    }
}

void dl_queue_step::send(model::dl_queue_entry& entry, const model::dl_queue& queue, int modem_id) {
    model::dl_message message;
    message.f_ack = entry.f_ack;
    message.f_system = entry.f_system;
    message.station_id = entry.station_id;
    message.frequency = entry.frequency;
    message.dl_phy = entry.dl_phy;
    message.data = entry.data;
    message.modem_id = modem_id;
    message.timeout = queue.timeout;
    message.timestamp = QDateTime::currentDateTime();
    message.user_id = "qln_queue";
    message.dl_status = model::PENDING;
    QJsonObject result;
    try {
        result = m_sender(entry, message);
    } catch (const downlink_refused& e) {
        // The entry's data cannot be encoded; sent again it would fail the same way, so it
        // fails for good (the queue command's "repeat" action brings it back).
        if (m_log) {
            log_line(*m_log, Warning) << "DL queue of modem " << QString::number(modem_id) << ": " << e.what()
                                      << "; its entry fails";
        }
        entry.repeat = std::max(entry.repeat, queue.repeat);
        entry.status = model::FAIL;
        return;
    }
    entry.db_id = result.value("bd_id").toString();
    entry.repeat += 1;
    entry.status = model::WAIT;
}
