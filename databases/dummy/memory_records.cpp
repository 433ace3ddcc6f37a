#include "databases/dummy/memory_records.h"

#include "databases/dummy/memory_query.h"

using memory_query::expired;
using memory_query::selected;

namespace {

// first_and_last before the limit; only what the limits let through is copied.
template <class T, class TimeOf, class KeyOf>
model::per_modem<T> finish(const std::vector<const T*>& hits, const model::value_query& query, TimeOf time_of,
                           KeyOf series_of) {
    memory_query::selection<T> selected = memory_query::by_modem(hits, time_of);
    if (query.first_and_last) {
        for (auto& entry : selected) {
            memory_query::keep_first_and_last(entry.second, series_of);
        }
    }
    return memory_query::limited_copy(selected, query.limit);
}

}  // namespace

int memory_records::purge_expired(int max_rows) {
    const QDateTime now = QDateTime::currentDateTimeUtc();
    const int values = memory_query::purge(m_data.values, now, max_rows);
    const int left = max_rows > 0 ? max_rows - values : 0;
    if (max_rows > 0 && left == 0) {
        return values;
    }
    return values + memory_query::purge(m_data.events, now, left);
}

void memory_records::save_values(const QList<model::dev_value>& values) {
    m_data.values.insert(m_data.values.end(), values.begin(), values.end());
}

void memory_records::save_events(const QList<model::dev_event>& events) {
    m_data.events.insert(m_data.events.end(), events.begin(), events.end());
}

void memory_records::get_values(model::per_modem<model::dev_value>& out, const model::value_query& query) {
    const QDateTime now = QDateTime::currentDateTimeUtc();
    const QSet<int> modems = memory_query::modem_set(query.modem_id);
    const memory_query::time_range range(query.from, query.to);
    std::vector<const model::dev_value*> hits;
    for (const model::dev_value& value : m_data.values) {
        if (!expired(value.ttl, now) && modems.contains(value.modem_id) && range.contains(value.timestamp) &&
            selected(query.tag, value.tag) && selected(query.obis_codes, value.obis_code)) {
            hits.push_back(&value);
        }
    }
    out = finish(
        hits, query, [](const model::dev_value& v) { return v.timestamp; },
        [](const model::dev_value& v) { return v.obis_code; });
}

void memory_records::get_events(model::per_modem<model::dev_event>& out, const model::value_query& query) {
    const QDateTime now = QDateTime::currentDateTimeUtc();
    const QSet<int> modems = memory_query::modem_set(query.modem_id);
    const memory_query::time_range range(query.from, query.to);
    std::vector<const model::dev_event*> hits;
    for (const model::dev_event& event : m_data.events) {
        if (!expired(event.ttl, now) && modems.contains(event.modem_id) && range.contains(event.timestamp) &&
            selected(query.obis_codes, QString::number(event.event_code))) {
            hits.push_back(&event);
        }
    }
    out = finish(
        hits, query, [](const model::dev_event& e) { return e.timestamp; },
        [](const model::dev_event& e) { return QString::number(e.event_code); });
}
