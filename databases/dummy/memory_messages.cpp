#include "databases/dummy/memory_messages.h"

#include <QUuid>

#include "databases/dummy/memory_query.h"

using memory_query::expired;

void memory_uplinks::save(const model::ul_message& message) {
    m_data.uplinks.push_back(message);
}

void memory_uplinks::get_roll(model::per_modem<model::ul_message>& out, const model::roll_query& query) {
    const QDateTime now = QDateTime::currentDateTimeUtc();
    const auto time_of = [&query](const model::ul_message& m) {
        return query.time_detected ? m.time_detected : m.timestamp;
    };
    const QSet<int> modems = memory_query::modem_set(query.modem_id);
    const memory_query::time_range range(query.from, query.to);
    std::vector<const model::ul_message*> hits;
    for (const model::ul_message& message : m_data.uplinks) {
        if (!expired(message.ttl, now) && modems.contains(message.modem_id) &&
            range.contains(time_of(message)) && memory_query::selected(query.tag, message.tag)) {
            hits.push_back(&message);
        }
    }
    const bool latest = query.fill == model::fill_latest;
    out = memory_query::limited_copy(memory_query::by_modem(hits, time_of), query.limit, latest);
}

QList<int> memory_uplinks::modems() {
    const QDateTime now = QDateTime::currentDateTimeUtc();
    std::map<int, bool> seen;
    for (const model::ul_message& message : m_data.uplinks) {
        if (!expired(message.ttl, now)) {
            seen[message.modem_id] = true;
        }
    }
    QList<int> out;
    for (const auto& entry : seen) {
        out.append(entry.first);
    }
    return out;
}

void memory_uplinks::device(std::pair<QString, QString>& out, int modem_id) {
    const QDateTime now = QDateTime::currentDateTimeUtc();
    out = {};
    for (auto it = m_data.uplinks.rbegin(); it != m_data.uplinks.rend(); ++it) {
        if (it->modem_id == modem_id && !expired(it->ttl, now)) {
            out = {it->protocol, it->hw_type};
            return;
        }
    }
}

void memory_downlinks::save(model::dl_message& message) {
    message.db_id = QUuid::createUuid().toString(QUuid::WithoutBraces);
    m_data.downlinks.push_back(message);
}

model::dl_message* memory_downlinks::find(const QString& db_id) {
    const QDateTime now = QDateTime::currentDateTimeUtc();
    for (model::dl_message& message : m_data.downlinks) {
        if (message.db_id == db_id && !expired(message.ttl, now)) {
            return &message;
        }
    }
    return nullptr;
}

model::dl_message memory_downlinks::get(const QString& db_id) {
    if (const model::dl_message* message = find(db_id)) {
        return *message;
    }
    throw QString("dl message %1 not found").arg(db_id);
}

model::per_modem<model::dl_message> memory_downlinks::select(const model::dl_query& query,
                                                             bool not_acked_only) const {
    const QDateTime now = QDateTime::currentDateTimeUtc();
    const QSet<int> modems = memory_query::modem_set(query.modem_id);
    const memory_query::time_range range(query.from, query.to);
    std::vector<const model::dl_message*> hits;
    for (const model::dl_message& message : m_data.downlinks) {
        if (!expired(message.ttl, now) && modems.contains(message.modem_id) &&
            range.contains(message.timestamp) && (!not_acked_only || message.dl_status < model::EXECUTED)) {
            hits.push_back(&message);
        }
    }
    const auto time_of = [](const model::dl_message& m) { return m.timestamp; };
    return memory_query::limited_copy(memory_query::by_modem(hits, time_of), query.limit);
}

model::per_modem<model::dl_message> memory_downlinks::list(const model::dl_query& query) {
    return select(query, false);
}

model::per_modem<model::dl_message> memory_downlinks::list_not_acked(const model::dl_query& query) {
    return select(query, true);
}

void memory_downlinks::set_status(const QString& db_id, int dl_status) {
    // The status is written by name later; only the names of dl_status may be stored.
    if (dl_status < model::PENDING || dl_status > model::TIMEOUT) {
        throw QString("dl status %1 of dl message %2 is not valid").arg(dl_status).arg(db_id);
    }
    model::dl_message* message = find(db_id);
    if (!message) {
        throw QString("dl message %1 not found").arg(db_id);
    }
    message->dl_status = dl_status;
}

int memory_messages::purge_expired(int max_rows) {
    const QDateTime now = QDateTime::currentDateTimeUtc();
    const int uplinks = memory_query::purge(m_data.uplinks, now, max_rows);
    const int left = max_rows > 0 ? max_rows - uplinks : 0;
    if (max_rows > 0 && left == 0) {
        return uplinks;
    }
    return uplinks + memory_query::purge(m_data.downlinks, now, left);
}
