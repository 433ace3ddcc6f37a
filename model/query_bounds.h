#pragma once

#include <QDateTime>
#include <QList>
#include <QSet>
#include <algorithm>
#include <cstddef>
#include <limits>

#include "model/queries.h"

// The bounds every store applies to a query, whatever the request asked for.
namespace model {

// The records one modem may contribute: the limit when it is 1 or more (at most the
// cap), the default when it is 0 or less.
inline int per_modem_limit(int limit) {
    return limit <= 0 ? default_history_limit : std::min(limit, max_history_limit);
}

// What is left of the cap on the records of one result, served modem after modem.
class record_budget {
public:
    explicit record_budget(int limit) : m_per_modem(per_modem_limit(limit)) {}

    // The most records the next modem may have.
    int next() const { return std::min(m_per_modem, m_left); }
    void spend(std::size_t count) {
        m_left -= static_cast<int>(std::min<std::size_t>(count, static_cast<std::size_t>(m_left)));
    }
    bool exhausted() const { return m_left == 0; }

private:
    int m_per_modem = default_history_limit;
    int m_left = max_history_limit;
};

// Each modem once, in ascending order: the order in which stores serve a query.
inline QList<int> distinct_modems(QList<int> ids) {
    std::sort(ids.begin(), ids.end());
    ids.erase(std::unique(ids.begin(), ids.end()), ids.end());
    return ids;
}

// Each id once, where it is first listed.
inline QList<int> first_of_each(const QList<int>& ids) {
    QList<int> out;
    QSet<int> seen;
    seen.reserve(ids.size());
    for (int id : ids) {
        if (!seen.contains(id)) {
            seen.insert(id);
            out.append(id);
        }
    }
    return out;
}

// Query bounds are whole seconds while stored times keep milliseconds: a bound takes in
// the whole of its second. Milliseconds since the epoch; an invalid bound is open.
inline qint64 range_start_ms(const QDateTime& from) {
    if (!from.isValid()) {
        return std::numeric_limits<qint64>::min();
    }
    const qint64 ms = from.toMSecsSinceEpoch();
    return ms - ((ms % 1000) + 1000) % 1000;
}

inline qint64 range_end_ms(const QDateTime& to) {
    if (!to.isValid()) {
        return std::numeric_limits<qint64>::max();
    }
    return range_start_ms(to) + 999;
}

}  // namespace model
