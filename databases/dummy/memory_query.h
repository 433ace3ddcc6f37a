#pragma once

#include <QDateTime>
#include <QStringList>
#include <algorithm>
#include <map>
#include <vector>

#include "model/queries.h"

// Selection rules shared by the queries of the in-memory stores.
namespace memory_query {

// A record whose valid ttl lies before now is gone; an invalid ttl never expires.
inline bool expired(const QDateTime& ttl, const QDateTime& now) {
    return ttl.isValid() && ttl < now;
}

// Inclusive bounds; an invalid bound is open.
inline bool in_range(const QDateTime& time, const QDateTime& from, const QDateTime& to) {
    return (!from.isValid() || time >= from) && (!to.isValid() || time <= to);
}

// An empty list selects everything.
inline bool selected(const QStringList& wanted, const QString& value) {
    return wanted.isEmpty() || wanted.contains(value);
}

// limit is the maximum number of records per modem; 0 (or less) means no limit.
template <class T>
void apply_limit(std::vector<T>& records, int limit, bool keep_latest = false) {
    if (limit > 0 && records.size() > static_cast<size_t>(limit)) {
        if (keep_latest) {
            records.erase(records.begin(), records.end() - limit);
        } else {
            records.resize(static_cast<size_t>(limit));
        }
    }
}

// The records grouped by modem, each modem's list in ascending time; records of equal
// time keep the order in which they were saved.
template <class T, class TimeOf>
model::per_modem<T> by_modem(const std::vector<const T*>& records, TimeOf time_of) {
    model::per_modem<T> out;
    for (const T* record : records) {
        out[record->modem_id].push_back(*record);
    }
    for (auto& [modem, list] : out) {
        std::stable_sort(list.begin(), list.end(),
                         [&time_of](const T& a, const T& b) { return time_of(a) < time_of(b); });
    }
    return out;
}

// Of a time-ordered list, only the first and the last record of each series (records
// with the same key), in the list's order.
template <class T, class KeyOf>
std::vector<T> first_and_last(const std::vector<T>& sorted, KeyOf key_of) {
    std::map<QString, std::pair<size_t, size_t>> ends;
    for (size_t i = 0; i < sorted.size(); ++i) {
        auto [it, inserted] = ends.try_emplace(key_of(sorted[i]), i, i);
        if (!inserted) {
            it->second.second = i;
        }
    }
    std::vector<bool> keep(sorted.size(), false);
    for (const auto& [key, range] : ends) {
        keep[range.first] = true;
        keep[range.second] = true;
    }
    std::vector<T> out;
    for (size_t i = 0; i < sorted.size(); ++i) {
        if (keep[i]) {
            out.push_back(sorted[i]);
        }
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
