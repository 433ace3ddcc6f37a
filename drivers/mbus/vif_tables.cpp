#include "vif_tables.h"

namespace mbus {

namespace {

// Seconds per unit of the 2-bit time-unit field nn: seconds, minutes, hours, days.
const double time_units[4] = {1, 60, 3600, 86400};
// One quantity, one unit: joules become watt-hours (J/h become W), US units m3.
constexpr double joule_to_wh = 1.0 / 3600.0;
constexpr double cubic_foot = 0.028316846592;  // m3, exact
constexpr double us_gallon = 0.003785411784;   // m3, exact

value_info number(const QString& quantity, const QString& unit, int exponent = 0, double factor = 1) {
    value_info v;
    v.quantity = quantity;
    v.unit = unit;
    v.exponent = exponent;
    v.factor = factor;
    return v;
}

value_info point_in_time(const char* quantity, value_kind kind) {
    value_info v;
    v.quantity = quantity;
    v.kind = kind;
    return v;
}

// Durations whose 2-bit unit field counts hours, days, months, years: hours and days
// become seconds, months and years keep their own unit under a separate name.
value_info long_duration(const char* quantity, int pp) {
    if (pp < 2) {
        return number(quantity, "s", 0, pp == 0 ? 3600 : 86400);
    }
    return number(QString(quantity) + (pp == 2 ? "_months" : "_years"), pp == 2 ? "month" : "year");
}

// Fahrenheit readings converted to the Celsius scale (differences to kelvin).
value_info fahrenheit(const char* quantity, int exponent, bool difference) {
    value_info v = number(quantity, difference ? "K" : "°C", exponent, 5.0 / 9.0);
    if (!difference) {
        v.offset = -32.0 * 5.0 / 9.0;
    }
    return v;
}

}  // namespace

bool primary_vif(uint8_t code, value_info& out) {
    const int n3 = code & 0x07;
    const int n2 = code & 0x03;
    if (code <= 0x07) {
        out = number("energy", "Wh", n3 - 3);
    } else if (code <= 0x0f) {
        out = number("energy", "Wh", n3, joule_to_wh);  // sent in 10^nnn J
    } else if (code <= 0x17) {
        out = number("volume", "m3", n3 - 6);
    } else if (code <= 0x1f) {
        out = number("mass", "kg", n3 - 3);
    } else if (code <= 0x23) {
        out = number("on_time", "s", 0, time_units[n2]);
    } else if (code <= 0x27) {
        out = number("operating_time", "s", 0, time_units[n2]);
    } else if (code <= 0x2f) {
        out = number("power", "W", n3 - 3);
    } else if (code <= 0x37) {
        out = number("power", "W", n3, joule_to_wh);  // sent in 10^nnn J/h
    } else if (code <= 0x3f) {
        out = number("volume_flow", "m3/h", n3 - 6);
    } else if (code <= 0x47) {
        out = number("volume_flow", "m3/h", n3 - 7, 60);  // from m3/min
    } else if (code <= 0x4f) {
        out = number("volume_flow", "m3/h", n3 - 9, 3600);  // from m3/s
    } else if (code <= 0x57) {
        out = number("mass_flow", "kg/h", n3 - 3);
    } else if (code <= 0x5b) {
        out = number("flow_temperature", "°C", n2 - 3);
    } else if (code <= 0x5f) {
        out = number("return_temperature", "°C", n2 - 3);
    } else if (code <= 0x63) {
        out = number("temperature_difference", "K", n2 - 3);
    } else if (code <= 0x67) {
        out = number("external_temperature", "°C", n2 - 3);
    } else if (code <= 0x6b) {
        out = number("pressure", "bar", n2 - 3);
    } else if (code == 0x6c) {
        out = point_in_time("date", value_kind::date);
    } else if (code == 0x6d) {
        out = point_in_time("datetime", value_kind::datetime);
    } else if (code == 0x6e) {
        out = number("hca", "");
    } else if (code >= 0x70 && code <= 0x73) {
        out = number("averaging_duration", "s", 0, time_units[n2]);
    } else if (code >= 0x74 && code <= 0x77) {
        out = number("actuality_duration", "s", 0, time_units[n2]);
    } else if (code == 0x78) {
        out = number("fabrication_number", "");
    } else if (code == 0x79) {
        out = number("identification", "");
    } else if (code == 0x7a) {
        out = number("bus_address", "");
    } else {
        return false;
    }
    return true;
}

bool fd_vif(uint8_t code, value_info& out) {
    static const char* const identities[] = {"access_number",
                                             "medium",
                                             "manufacturer",
                                             "parameter_set",
                                             "model_version",
                                             "hardware_version",
                                             "firmware_version",
                                             "software_version",
                                             "customer_location",
                                             "customer",
                                             "access_code_user",
                                             "access_code_operator",
                                             "access_code_system_operator",
                                             "access_code_developer",
                                             "password",
                                             "error_flags",
                                             "error_mask"};
    static const char* const counters[] = {
        "reset_counter",   "cumulation_counter",         "control_signal",      "day_of_week", "week_number",
        "day_change_time", "parameter_activation_state", "supplier_information"};
    const int n2 = code & 0x03;
    if (code <= 0x03) {
        out = number("credit", "currency", n2 - 3);
    } else if (code <= 0x07) {
        out = number("debit", "currency", n2 - 3);
    } else if (code <= 0x18) {
        out = number(identities[code - 0x08], "");
    } else if (code == 0x1a) {
        out = number("digital_output", "");
    } else if (code == 0x1b) {
        out = number("digital_input", "");
    } else if (code == 0x1c) {
        out = number("baud_rate", "Bd");
    } else if (code == 0x1d) {
        out = number("response_delay", "bit times");
    } else if (code == 0x1e) {
        out = number("retry", "");
    } else if (code == 0x20) {
        out = number("first_storage", "");
    } else if (code == 0x21) {
        out = number("last_storage", "");
    } else if (code == 0x22) {
        out = number("storage_block_size", "");
    } else if (code >= 0x24 && code <= 0x27) {
        out = number("storage_interval", "s", 0, time_units[n2]);
    } else if (code == 0x28) {
        out = number("storage_interval_months", "month");
    } else if (code == 0x29) {
        out = number("storage_interval_years", "year");
    } else if (code >= 0x2c && code <= 0x2f) {
        out = number("duration_since_readout", "s", 0, time_units[n2]);
    } else if (code == 0x30) {
        out = point_in_time("tariff_start", value_kind::datetime);
    } else if (code >= 0x31 && code <= 0x33) {
        out = number("tariff_duration", "s", 0, time_units[n2]);
    } else if (code >= 0x34 && code <= 0x37) {
        out = number("tariff_period", "s", 0, time_units[n2]);
    } else if (code == 0x38) {
        out = number("tariff_period_months", "month");
    } else if (code == 0x39) {
        out = number("tariff_period_years", "year");
    } else if (code == 0x3a) {
        out = number("dimensionless", "");
    } else if (code >= 0x40 && code <= 0x4f) {
        out = number("voltage", "V", (code & 0x0f) - 9);
    } else if (code >= 0x50 && code <= 0x5f) {
        out = number("current", "A", (code & 0x0f) - 12);
    } else if (code >= 0x60 && code <= 0x67) {
        out = number(counters[code - 0x60], "");
    } else if (code >= 0x68 && code <= 0x6b) {
        out = long_duration("duration_since_cumulation", n2);
    } else if (code >= 0x6c && code <= 0x6f) {
        out = long_duration("battery_operating_time", n2);
    } else if (code == 0x70) {
        out = point_in_time("battery_change_date", value_kind::datetime);
    } else if (code == 0x71) {
        out = number("rf_level", "dBm");
    } else if (code == 0x74) {
        out = number("battery_lifetime", "s", 0, 86400);  // sent in days
    } else if (code == 0x75) {
        out = number("meter_stopped_count", "");
    } else {
        return false;
    }
    return true;
}

bool fb_vif(uint8_t code, value_info& out) {
    const int n1 = code & 0x01;
    const int n2 = code & 0x03;
    if (code <= 0x01) {
        out = number("energy", "Wh", n1 + 5);  // 10^(n-1) MWh
    } else if (code == 0x08 || code == 0x09) {
        out = number("energy", "Wh", n1 + 8, joule_to_wh);  // 10^(n-1) GJ
    } else if (code == 0x10 || code == 0x11) {
        out = number("volume", "m3", n1 + 2);
    } else if (code == 0x18 || code == 0x19) {
        out = number("mass", "kg", n1 + 5);  // 10^(n+2) t
    } else if (code == 0x1a || code == 0x1b) {
        out = number("relative_humidity", "%", n1 - 1);
    } else if (code == 0x21) {
        out = number("volume", "m3", -1, cubic_foot);  // 0.1 ft3
    } else if (code == 0x22 || code == 0x23) {
        out = number("volume", "m3", code == 0x22 ? -1 : 0, us_gallon);  // 0.1 or 1 US gallon
    } else if (code == 0x24 || code == 0x25) {
        out = number("volume_flow", "m3/h", code == 0x24 ? -3 : 0, us_gallon * 60);  // gal/min
    } else if (code == 0x26) {
        out = number("volume_flow", "m3/h", 0, us_gallon);  // gal/h
    } else if (code == 0x28 || code == 0x29) {
        out = number("power", "W", n1 + 5);  // 10^(n-1) MW
    } else if (code == 0x30 || code == 0x31) {
        out = number("power", "W", n1 + 8, joule_to_wh);  // 10^(n-1) GJ/h
    } else if (code >= 0x58 && code <= 0x5b) {
        out = fahrenheit("flow_temperature", n2 - 3, false);
    } else if (code >= 0x5c && code <= 0x5f) {
        out = fahrenheit("return_temperature", n2 - 3, false);
    } else if (code >= 0x60 && code <= 0x63) {
        out = fahrenheit("temperature_difference", n2 - 3, true);
    } else if (code >= 0x64 && code <= 0x67) {
        out = fahrenheit("external_temperature", n2 - 3, false);
    } else if (code >= 0x70 && code <= 0x73) {
        out = fahrenheit("temperature_limit", n2 - 3, false);
    } else if (code >= 0x74 && code <= 0x77) {
        out = number("temperature_limit", "°C", n2 - 3);
    } else if (code >= 0x78) {
        out = number("cumulative_max_power", "W", (code & 0x07) - 3);
    } else {
        return false;
    }
    return true;
}

namespace {

// VIFEs 0x27-0x38: the value is per (or times) another unit; the quantity changes.
bool per_unit_vife(uint8_t code, value_info& info) {
    static const char* const suffix[] = {
        "_per_measurement", "_per_pulse_in0", "_per_pulse_in1", "_per_pulse_out0", "_per_pulse_out1",
        "_per_l",           "_per_m3",        "_per_kg",        "_per_K",          "_per_kWh",
        "_per_GJ",          "_per_kW",        "_per_Kl",        "_per_V",          "_per_A",
        "_times_s",         "_times_s_per_V", "_times_s_per_A"};
    static const char* const unit[] = {"/measurement", "/pulse", "/pulse", "/pulse", "/pulse", "/l",
                                       "/m3",          "/kg",    "/K",     "/kWh",   "/GJ",    "/kW",
                                       "/(K l)",       "/V",     "/A",     " s",     " s/V",   " s/A"};
    if (code < 0x27 || code > 0x38) {
        return false;
    }
    info.quantity += suffix[code - 0x27];
    info.unit += unit[code - 0x27];
    return true;
}

// The record no longer holds the quantity itself but a point in time about it.
void make_date(value_info& info, const QString& qualifier) {
    info.qualifier += qualifier;
    info.kind = value_kind::datetime;
    info.unit.clear();
    info.exponent = 0;
    info.factor = 1;
    info.offset = 0;
}

// ... or a duration (seconds) or a count.
void make_duration(value_info& info, const QString& qualifier, double seconds) {
    info.qualifier += qualifier;
    info.unit = seconds > 0 ? "s" : "";
    info.exponent = 0;
    info.factor = seconds > 0 ? seconds : 1;
    info.offset = 0;
}

// VIFEs 0x40-0x6f: limit values, limit exceeds and the first/last durations and dates.
bool limit_vife(uint8_t code, value_info& info) {
    const QString limit = (code & 0x08) ? ".upper_limit" : ".lower_limit";
    const QString first_last = (code & 0x04) ? "_last" : "_first";
    const QString begin_end = (code & 0x01) ? "_end" : "_begin";
    if (code == 0x40 || code == 0x48) {
        info.qualifier += limit;  // the limit value itself, in the VIF's unit
    } else if (code == 0x41 || code == 0x49) {
        make_duration(info, limit + "_exceeds", 0);
    } else if (code >= 0x40 && code <= 0x4f && (code & 0x02)) {
        make_date(info, limit + first_last + begin_end + "_date");
    } else if (code >= 0x50 && code <= 0x5f) {
        make_duration(info, limit + first_last + "_duration", time_units[code & 0x03]);
    } else if (code >= 0x60 && code <= 0x67) {
        make_duration(info, first_last.mid(1).prepend('.') + "_duration", time_units[code & 0x03]);
    } else if (code >= 0x68 && code <= 0x6f && (code & 0x02)) {
        make_date(info, first_last.mid(1).prepend('.') + begin_end + "_date");
    } else {
        return false;
    }
    return true;
}

}  // namespace

bool combinable_vife(uint8_t code, value_info& info) {
    static const char* const per_suffix[] = {"_per_s",    "_per_min",   "_per_h",   "_per_d",
                                             "_per_week", "_per_month", "_per_year"};
    static const char* const per_unit[] = {"/s", "/min", "/h", "/d", "/week", "/month", "/year"};
    if (code <= 0x1f) {
        info.record_error = code;  // 0x00 means "no error"
    } else if (code <= 0x26) {
        info.quantity += per_suffix[code - 0x20];
        info.unit += per_unit[code - 0x20];
    } else if (per_unit_vife(code, info)) {
    } else if (code == 0x39) {
        make_date(info, ".start_date");
    } else if (code == 0x3a) {
        info.qualifier += ".uncorrected";  // at metering conditions, not converted
    } else if (code == 0x3b) {
        info.qualifier += ".pos";  // accumulation only of positive contributions
    } else if (code == 0x3c) {
        info.qualifier += ".neg";  // accumulation of the absolute value of negative contributions
    } else if (code == 0x3e) {
        info.qualifier += ".base_conditions";
    } else if (limit_vife(code, info)) {
    } else if (code >= 0x70 && code <= 0x77) {
        info.exponent += (code & 0x07) - 6;  // multiplicative correction 10^(nnn-6)
    } else if (code >= 0x78 && code <= 0x7b) {
        // The record is an additive correction constant (offset) in the VIF's unit.
        info.qualifier += ".offset";
        info.exponent += (code & 0x03) - 3;
    } else if (code == 0x7d) {
        info.exponent += 3;  // multiplicative correction 10^3
    } else if (code == 0x7e) {
        info.qualifier += ".future";  // future value
    } else if (code == 0x7f) {
        info.manufacturer = true;
    } else {
        return false;
    }
    return true;
}

}  // namespace mbus
