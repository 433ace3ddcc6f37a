#include "commands/step_thinning.h"

namespace step_thinning {

QString series_key(const model::dev_value& value) {
    return value.obis_code.isEmpty() ? value.tag : value.obis_code;
}

QString series_key(const model::dev_event& event) {
    return QString::number(event.event_code);
}

series_grid::series_grid(const QDateTime& from, int step) : m_from(from.toSecsSinceEpoch()), m_step(step) {}

bool series_grid::admit(const QString& key, const QDateTime& time) {
    const qint64 at = time.toSecsSinceEpoch();
    auto next = m_next.find(key);
    if (next == m_next.end()) {
        next = m_next.insert(key, m_from);  // a new series starts at the query's start
    }
    if (at < next.value()) {
        return false;
    }
    // Advance by whole steps until the grid time is later than the record.
    next.value() += ((at - next.value()) / m_step + 1) * m_step;
    return true;
}

bool applies(const model::value_query& query) {
    return query.step >= 1 && !query.first_and_last;
}

}  // namespace step_thinning
