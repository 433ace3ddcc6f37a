#pragma once

#include <QDateTime>
#include <QList>
#include <QSet>
#include <QStringList>
#include <algorithm>
#include <map>
#include <vector>

#include "model/queries.h"
#include "model/query_bounds.h"

// Selection rules shared by the queries of the in-memory stores.
namespace memory_query {

// A record whose valid ttl lies before now is gone; an invalid ttl never expires.
inline bool expired(const QDateTime& ttl, const QDateTime& now) {
    return ttl.isValid() && ttl < now;
}

// The inclusive range of a query, each whole-second bound taking in its whole second.
class time_range {
public:
    time_range(const QDateTime& from, const QDateTime& to)
        : m_from(model::range_start_ms(from)), m_to(model::range_end_ms(to)) {}
    bool contains(const QDateTime& time) const {
        const qint64 ms = time.toMSecsSinceEpoch();
        return ms >= m_from && ms <= m_to;
    }

private:
    qint64 m_from = 0;
    qint64 m_to = 0;
};

// The modems of a query as a set: one look-up per record, whatever the list's length.
inline QSet<int> modem_set(const QList<int>& ids) {
    return QSet<int>(ids.begin(), ids.end());
}

// An empty list selects everything.
inline bool selected(const QStringList& wanted, const QString& value) {
    return wanted.isEmpty() || wanted.contains(value);
}

// The selected records grouped by modem (ascending), each modem's list in ascending
// time; records of equal time keep the order in which they were saved. Only pointers:
// nothing is copied before the limit is known.
template <class T>
using selection = std::map<int, std::vector<const T*>>;

template <class T, class TimeOf>
selection<T> by_modem(const std::vector<const T*>& records, TimeOf time_of) {
    selection<T> out;
    for (const T* record : records) {
        out[record->modem_id].push_back(record);
    }
    for (auto& entry : out) {
        std::stable_sort(entry.second.begin(), entry.second.end(),
                         [&time_of](const T* a, const T* b) { return time_of(*a) < time_of(*b); });
    }
    return out;
}

// Of a time-ordered list, only the first and the last record of each series (records
// with the same key), in the list's order.
template <class T, class KeyOf>
void keep_first_and_last(std::vector<const T*>& sorted, KeyOf key_of) {
    std::map<QString, std::pair<size_t, size_t>> ends;
    for (size_t i = 0; i < sorted.size(); ++i) {
        auto [it, inserted] = ends.try_emplace(key_of(*sorted[i]), i, i);
        if (!inserted) {
            it->second.second = i;
        }
    }
    std::vector<bool> keep(sorted.size(), false);
    for (const auto& entry : ends) {
        keep[entry.second.first] = true;
        keep[entry.second.second] = true;
    }
    std::vector<const T*> out;
    for (size_t i = 0; i < sorted.size(); ++i) {
        if (keep[i]) {
            out.push_back(sorted[i]);
        }
    }
    sorted.swap(out);
}

// Copies of the selection, each modem cut to the per-modem limit (the earliest records,
// or the newest with keep_latest) and the whole result to the cap, modems in ascending
// order: the last ones get what is left.
template <class T>
model::per_modem<T> limited_copy(const selection<T>& selected, int limit, bool keep_latest = false) {
    model::record_budget budget(limit);
    model::per_modem<T> out;
    for (const auto& [modem, records] : selected) {
        if (budget.exhausted()) {
            break;
        }
        const size_t count = std::min(records.size(), static_cast<size_t>(budget.next()));
        const auto first = keep_latest ? records.end() - static_cast<std::ptrdiff_t>(count) : records.begin();
        std::vector<T>& copies = out[modem];
        copies.reserve(count);
        for (auto it = first; it != first + static_cast<std::ptrdiff_t>(count); ++it) {
            copies.push_back(**it);
        }
        budget.spend(count);
    }
    return out;
}

// Removes up to max_rows expired records (all of them when max_rows is 0 or less);
// returns how many were removed.
template <class T>
int purge(std::vector<T>& records, const QDateTime& now, int max_rows) {
    int removed = 0;
    std::vector<T> kept;
    kept.reserve(records.size());
    for (T& record : records) {
        if (expired(record.ttl, now) && (max_rows <= 0 || removed < max_rows)) {
            ++removed;
        } else {
            kept.push_back(std::move(record));
        }
    }
    records = std::move(kept);
    return removed;
}

}  // namespace memory_query
