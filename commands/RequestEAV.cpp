#include "commands/RequestEAV.h"

template <>
const char* RequestEAV<model::dev_value>::command_name() {
    return "request_eav_value";
}

template <>
const char* RequestEAV<model::dev_event>::command_name() {
    return "request_eav_event";
}

template <>
model::per_modem<model::dev_value> RequestEAV<model::dev_value>::load(const model::value_query& query) const {
    model::per_modem<model::dev_value> values;
    m_context->eav->records().get_values(values, query);
    return values;
}

template <>
model::per_modem<model::dev_event> RequestEAV<model::dev_event>::load(const model::value_query& query) const {
    model::per_modem<model::dev_event> events;
    m_context->eav->records().get_events(events, query);
    return events;
}
