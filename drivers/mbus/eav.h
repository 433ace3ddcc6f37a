#pragma once

#include <QDateTime>
#include <QHash>
#include <QList>
#include <QString>

#include "mbus_types.h"
#include "model/records.h"

namespace mbus {

// What every value and event of one message shares.
struct message_context {
    int32_t modem_id = 0;
    QDateTime time_detected;
    QString tag;
    QString message_id;
    QDateTime ttl;
};

// Event codes raised from the header's status byte and the error-flags record.
enum event_code : int32_t {
    ev_application_busy = 1,
    ev_application_error = 2,
    ev_abnormal_condition = 3,
    ev_power_low = 4,
    ev_permanent_error = 5,
    ev_temporary_error = 6,
    ev_manufacturer_status = 7,
    ev_error_flag = 8,
};

QString function_name(function_field f);
// The same name as plain ASCII text.
const char* function_text(function_field f);
// quantity[.max|.min|.err][.s<N>][.t<N>][.u<N>]
QString obis_code(const record& r);
// Whether a record becomes a value: a number with a standard meaning and no record error.
bool is_value(const record& r);

// Time a record refers to: time_detected for storage 0; for storage N the first
// date-time (or else the first date) record of storage N when the payload has one.
QDateTime record_time(const decode_result& decoded, const record& r, const QDateTime& time_detected);

// The same for every record of one message, its records read once: a payload of many
// records costs in proportion to their number, not to its square.
class storage_times {
public:
    storage_times(const decode_result& decoded, const QDateTime& time_detected);
    QDateTime of(const record& r) const;

private:
    QDateTime m_time_detected;
    QHash<uint64_t, QDateTime> m_date_times;
    QHash<uint64_t, QDateTime> m_dates;
};

QList<model::dev_value> to_values(const decode_result& decoded, const message_context& ctx);
QList<model::dev_event> to_events(const decode_result& decoded, const message_context& ctx);
// Events first, then values.
model::eav_list to_eav(const decode_result& decoded, const message_context& ctx);

}  // namespace mbus
