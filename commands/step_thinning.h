#pragma once

#include <QDateTime>
#include <QHash>
#include <QString>
#include <algorithm>
#include <utility>
#include <vector>

#include "model/queries.h"
#include "model/records.h"

// Step thinning of value and event histories: of each interval of `step` seconds,
// counted from the query's start, at most the first record of each series is kept.
namespace step_thinning {

// The series a value belongs to: its OBIS code, or its tag when it has none.
QString series_key(const model::dev_value& value);
// The series an event belongs to: its event code as text.
QString series_key(const model::dev_event& event);

// The next grid times of the series of one modem.
class series_grid {
public:
    series_grid(const QDateTime& from, int step);
    // True when the record is the first of its interval; the series' grid then moves
    // past the record's time.
    bool admit(const QString& key, const QDateTime& time);

private:
    qint64 m_from;
    qint64 m_step;
    QHash<QString, qint64> m_next;
};

// Whether the query asks for thinning: a step of 1 or more and no "first_and_last".
bool applies(const model::value_query& query);

// Thins one modem's records, which end up in time order.
template <class T>
void thin_modem(std::vector<T>& records, const QDateTime& from, int step) {
    const auto earlier = [](const T& a, const T& b) { return a.timestamp < b.timestamp; };
    if (!std::is_sorted(records.begin(), records.end(), earlier)) {
        std::stable_sort(records.begin(), records.end(), earlier);
    }
    series_grid grid(from, step);
    auto kept = records.begin();
    for (auto it = records.begin(); it != records.end(); ++it) {
        if (grid.admit(series_key(*it), it->timestamp)) {
            if (kept != it) {
                *kept = std::move(*it);
            }
            ++kept;
        }
    }
    records.erase(kept, records.end());
}

// Thins every modem's records when the query asks for it.
template <class T>
void thin(model::per_modem<T>& records, const model::value_query& query) {
    if (!applies(query)) {
        return;  // thinning is off for this query
    }
    for (auto& modem : records) {
        thin_modem(modem.second, query.from, query.step);
    }
}

}  // namespace step_thinning
