#include "uplink_history.h"

#include <stdexcept>

uplink_history::uplink_history(int per_modem) : m_per_modem(per_modem) {
    if (per_modem < 1) {
        throw std::invalid_argument("uplink_history: at least one message per modem must be kept");
    }
}

void uplink_history::add(int modem_id, qint64 time, const QJsonObject& message) {
    std::deque<entry>& kept = m_entries[modem_id];
    kept.push_back({modem_id, time, message});
    while (int(kept.size()) > m_per_modem) {
        kept.pop_front();
    }
}

std::vector<uplink_history::entry> uplink_history::select(const QList<int>& modem_ids, qint64 from, qint64 to,
                                                          qint64 limit) const {
    std::vector<entry> result;
    for (int modem_id : modem_ids) {
        const auto found = m_entries.constFind(modem_id);
        if (found == m_entries.constEnd()) {
            continue;
        }
        for (const entry& e : *found) {
            if (qint64(result.size()) >= limit) {
                return result;
            }
            if (e.time >= from && e.time <= to) {
                result.push_back(e);
            }
        }
    }
    return result;
}

int uplink_history::size(int modem_id) const {
    const auto found = m_entries.constFind(modem_id);
    return found == m_entries.constEnd() ? 0 : int(found->size());
}
