#include "databases/dummy/memory_records.h"

#include "databases/dummy/memory_query.h"

using memory_query::expired;
using memory_query::in_range;
using memory_query::selected;

namespace {

template <class T, class KeyOf>
void finish(model::per_modem<T>& out, const model::value_query& query, KeyOf series_of) {
    for (auto& [modem, list] : out) {
        if (query.first_and_last) {
            list = memory_query::first_and_last(list, series_of);
        }
        memory_query::apply_limit(list, query.limit);
    }
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
    std::vector<const model::dev_value*> hits;
    for (const model::dev_value& value : m_data.values) {
        if (!expired(value.ttl, now) && query.modem_id.contains(value.modem_id) &&
            in_range(value.timestamp, query.from, query.to) && selected(query.tag, value.tag) &&
            selected(query.obis_codes, value.obis_code)) {
            hits.push_back(&value);
        }
    }
    out = memory_query::by_modem(hits, [](const model::dev_value& v) { return v.timestamp; });
    finish(out, query, [](const model::dev_value& v) { return v.obis_code; });
}

void memory_records::get_events(model::per_modem<model::dev_event>& out, const model::value_query& query) {
    const QDateTime now = QDateTime::currentDateTimeUtc();
    std::vector<const model::dev_event*> hits;
    for (const model::dev_event& event : m_data.events) {
        if (!expired(event.ttl, now) && query.modem_id.contains(event.modem_id) &&
            in_range(event.timestamp, query.from, query.to) &&
            selected(query.obis_codes, QString::number(event.event_code))) {
            hits.push_back(&event);
        }
    }
    out = memory_query::by_modem(hits, [](const model::dev_event& e) { return e.timestamp; });
    finish(out, query, [](const model::dev_event& e) { return QString::number(e.event_code); });
}
