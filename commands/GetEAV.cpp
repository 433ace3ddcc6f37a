#include "commands/GetEAV.h"

#include "commands/command_context.h"

template <>
const char* GetEAV<model::dev_value>::command_name() {
    return "get_eav_value";
}

template <>
const char* GetEAV<model::dev_event>::command_name() {
    return "get_eav_event";
}

template <>
model::per_modem<model::dev_value> GetEAV<model::dev_value>::load(const model::value_query& query) const {
    model::per_modem<model::dev_value> values;
    m_context->eav->records().get_values(values, query);
    return values;
}

template <>
model::per_modem<model::dev_event> GetEAV<model::dev_event>::load(const model::value_query& query) const {
    model::per_modem<model::dev_event> events;
    m_context->eav->records().get_events(events, query);
    return events;
}
