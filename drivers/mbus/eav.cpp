#include "eav.h"

#include <QJsonObject>

#include "dib.h"

namespace mbus {

namespace {

model::dev_event make_event(const message_context& ctx, const QDateTime& time, int32_t code,
                            const QString& text, int32_t parameter, const QJsonObject& details) {
    model::dev_event e;
    e.modem_id = ctx.modem_id;
    e.timestamp = time;
    e.event_code = code;
    e.message_id = ctx.message_id;
    e.message = text;
    e.extended_data = QJsonDocument(details);
    e.parameter = parameter;
    e.ttl = ctx.ttl;
    return e;
}

// Status byte: bits 0-1 application state, 2 power low, 3 permanent error, 4 temporary
// error, 5-7 manufacturer specific.
void status_events(QList<model::dev_event>& out, int status, const message_context& ctx) {
    const QJsonObject details{{"status", status}};
    const QDateTime& t = ctx.time_detected;
    switch (status & 0x03) {
        case 1:
            out << make_event(ctx, t, ev_application_busy, "application busy", status, details);
            break;
        case 2:
            out << make_event(ctx, t, ev_application_error, "application error", status, details);
            break;
        case 3:
            out << make_event(ctx, t, ev_abnormal_condition, "abnormal condition", status, details);
            break;
        default:
            break;
    }
    if (status & 0x04) {
        out << make_event(ctx, t, ev_power_low, "power low", status, details);
    }
    if (status & 0x08) {
        out << make_event(ctx, t, ev_permanent_error, "permanent error", status, details);
    }
    if (status & 0x10) {
        out << make_event(ctx, t, ev_temporary_error, "temporary error", status, details);
    }
    if (status & 0xe0) {
        out << make_event(ctx, t, ev_manufacturer_status, "manufacturer status", status >> 5, details);
    }
}

// The flags as the bit field the meter sent: integer codings are read unsigned.
uint64_t flag_bits(const record& r) {
    const bool integer = (r.coding >= int8 && r.coding <= int32 && r.coding != real32) || r.coding == int48 ||
                         r.coding == int64;
    if (!integer) {
        // A real or BCD field is a bit field only as a whole, non-negative number below
        // 2^64; anything else (NaN included) flags nothing rather than converting
        // undefined.
        const double value = r.value.toDouble();
        if (!(value >= 0.0 && value < 18446744073709551616.0)) {
            return 0;
        }
        return static_cast<uint64_t>(value);
    }
    uint64_t v = 0;
    for (int i = r.data.size() - 1; i >= 0; --i) {
        v = (v << 8) | uint8_t(r.data[i]);
    }
    return v;
}

}  // namespace

const char* function_text(function_field f) {
    switch (f) {
        case function_field::maximum:
            return "maximum";
        case function_field::minimum:
            return "minimum";
        case function_field::error_state:
            return "error_state";
        default:
            return "instantaneous";
    }
}

QString function_name(function_field f) {
    return QString::fromLatin1(function_text(f));
}

QString obis_code(const record& r) {
    static const char* const suffix[] = {"", ".max", ".min", ".err"};
    QString code = r.info.quantity + r.info.qualifier + suffix[static_cast<int>(r.function)];
    if (r.storage > 0) {
        code += ".s" + QString::number(r.storage);
    }
    if (r.tariff > 0) {
        code += ".t" + QString::number(r.tariff);
    }
    if (r.subunit > 0) {
        code += ".u" + QString::number(r.subunit);
    }
    return code;
}

bool is_value(const record& r) {
    return r.numeric() && r.info.kind == value_kind::number && !r.info.manufacturer &&
           r.info.record_error == 0 && r.skipped.isEmpty();
}

storage_times::storage_times(const decode_result& decoded, const QDateTime& time_detected)
    : m_time_detected(time_detected) {
    for (const record& r : decoded.records) {
        if (r.storage == 0 || r.value.type() != QVariant::DateTime) {
            continue;
        }
        // The first date-time of a storage number wins over any date of it; the first
        // date counts only while no date-time is known.
        if (r.info.quantity == "datetime" && !m_date_times.contains(r.storage)) {
            m_date_times.insert(r.storage, r.value.toDateTime());
        } else if (r.info.quantity == "date" && !m_dates.contains(r.storage) &&
                   r.value.toDateTime().isValid()) {
            m_dates.insert(r.storage, r.value.toDateTime());
        }
    }
}

QDateTime storage_times::of(const record& r) const {
    if (r.storage == 0) {
        return m_time_detected;
    }
    const auto date_time = m_date_times.constFind(r.storage);
    if (date_time != m_date_times.constEnd()) {
        return *date_time;
    }
    return m_dates.value(r.storage, m_time_detected);
}

QDateTime record_time(const decode_result& decoded, const record& r, const QDateTime& time_detected) {
    return storage_times(decoded, time_detected).of(r);
}

QList<model::dev_value> to_values(const decode_result& decoded, const message_context& ctx) {
    QList<model::dev_value> out;
    const storage_times times(decoded, ctx.time_detected);
    for (const record& r : decoded.records) {
        if (!is_value(r)) {
            continue;
        }
        model::dev_value v;
        v.modem_id = ctx.modem_id;
        v.timestamp = times.of(r);
        v.obis_code = obis_code(r);
        v.tag = ctx.tag;
        v.value = r.value.toDouble();
        v.message_id = ctx.message_id;
        v.ttl = ctx.ttl;
        out << v;
    }
    return out;
}

QList<model::dev_event> to_events(const decode_result& decoded, const message_context& ctx) {
    QList<model::dev_event> out;
    if (decoded.header.has_status()) {
        status_events(out, decoded.header.status, ctx);
    }
    const storage_times times(decoded, ctx.time_detected);
    for (const record& r : decoded.records) {
        if (r.info.quantity != "error_flags" || !r.numeric() || r.info.record_error != 0) {
            continue;
        }
        const uint64_t flags = flag_bits(r);
        const QJsonObject details{{"flags", double(flags)},
                                  {"storage", double(r.storage)},
                                  {"subunit", double(r.subunit)},
                                  {"obis_code", obis_code(r)}};
        for (int bit = 0; bit < 64; ++bit) {
            if (flags & (uint64_t(1) << bit)) {
                out << make_event(ctx, times.of(r), ev_error_flag, QString("error flag bit %1").arg(bit), bit,
                                  details);
            }
        }
    }
    return out;
}

model::eav_list to_eav(const decode_result& decoded, const message_context& ctx) {
    model::eav_list out;
    for (const model::dev_event& e : to_events(decoded, ctx)) {
        out.emplace_back(e);
    }
    for (const model::dev_value& v : to_values(decoded, ctx)) {
        out.emplace_back(v);
    }
    return out;
}

}  // namespace mbus
