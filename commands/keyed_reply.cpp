#include "commands/keyed_reply.h"

#include <algorithm>

void keyed_reply::insert(int modem_id, QJsonValue value) {
    m_entries.emplace_back(QString::number(modem_id), std::move(value));
}

QJsonObject keyed_reply::take() {
    std::stable_sort(m_entries.begin(), m_entries.end(),
                     [](const auto& a, const auto& b) { return a.first < b.first; });
    QJsonObject reply;
    for (size_t i = 0; i < m_entries.size(); ++i) {
        const bool replaced = i + 1 < m_entries.size() && m_entries[i + 1].first == m_entries[i].first;
        if (!replaced) {
            reply.insert(m_entries[i].first, m_entries[i].second);
        }
    }
    m_entries.clear();
    return reply;
}
