#include "quantities.h"

#include "eav.h"

namespace mbus {

namespace {

constexpr double big = 1e15;
constexpr double counter = 4294967295.0;

}  // namespace

const std::vector<quantity_entry>& quantity_table() {
    static const std::vector<quantity_entry> table = {
        // Primary VIF table.
        {"energy", "Wh", "energy", -big, big, true, true},
        {"energy_j", "J", "energy in joule (now energy in Wh)", -big, big, true, true, true},
        {"volume", "m3", "volume", -big, big, true, true},
        {"mass", "kg", "mass", -big, big, true, true},
        {"on_time", "s", "on time", 0, big, false, true},
        {"operating_time", "s", "operating time", 0, big, false, true},
        {"power", "W", "power", -big, big, true, true},
        {"power_jh", "J/h", "power in joule per hour (now power in W)", -big, big, true, true, true},
        {"volume_flow", "m3/h", "volume flow", -big, big, true, true},
        {"mass_flow", "kg/h", "mass flow", -big, big, true, true},
        {"flow_temperature", "°C", "flow temperature", -273.15, 1000, true, true},
        {"return_temperature", "°C", "return temperature", -273.15, 1000, true, true},
        {"temperature_difference", "K", "temperature difference", -1000, 1000, false, true},
        {"external_temperature", "°C", "external temperature", -273.15, 1000, false, true},
        {"pressure", "bar", "pressure", -1000, 10000, false, true},
        {"date", "", "date (type G) of its storage number", 0, 0, false, false},
        {"datetime", "", "date and time (type F or I) of its storage number", 0, 0, false, false},
        {"hca", "", "heat cost allocator units", -big, big, true, true},
        {"averaging_duration", "s", "averaging duration", 0, big, false, true},
        {"actuality_duration", "s", "actuality duration", 0, big, false, true},
        {"fabrication_number", "", "fabrication number", 0, big, false, true},
        {"identification", "", "enhanced identification", 0, big, false, true},
        {"bus_address", "", "bus address", 0, 255, false, true},
        // Extension table 0xfd.
        {"credit", "currency", "credit in local currency units", -big, big, false, true},
        {"debit", "currency", "debit in local currency units", -big, big, false, true},
        {"access_number", "", "access number (transmission count)", 0, counter, false, true},
        {"medium", "", "medium as in the long header", 0, 255, false, true},
        {"manufacturer", "", "manufacturer code", 0, 65535, false, true},
        {"parameter_set", "", "parameter set identification", -big, big, false, true},
        {"model_version", "", "model or version", -big, big, false, true},
        {"hardware_version", "", "hardware version", -big, big, false, true},
        {"firmware_version", "", "firmware version", -big, big, false, true},
        {"software_version", "", "software version", -big, big, false, true},
        {"customer_location", "", "customer location", -big, big, false, true},
        {"customer", "", "customer", -big, big, false, true},
        {"access_code_user", "", "access code user", -big, big, false, true},
        {"access_code_operator", "", "access code operator", -big, big, false, true},
        {"access_code_system_operator", "", "access code system operator", -big, big, false, true},
        {"access_code_developer", "", "access code developer", -big, big, false, true},
        {"password", "", "password", -big, big, false, true},
        {"error_flags", "", "error flags (bit field)", -big, big, false, true},
        {"error_mask", "", "error mask (bit field)", -big, big, false, true},
        {"digital_output", "", "digital outputs (bit field)", -big, big, false, true},
        {"digital_input", "", "digital inputs (bit field)", -big, big, false, true},
        {"baud_rate", "Bd", "baud rate", 0, big, false, true},
        {"response_delay", "bit times", "response delay time", 0, big, false, true},
        {"retry", "", "retry", 0, big, false, true},
        {"first_storage", "", "first storage number for cyclic storage", 0, big, false, true},
        {"last_storage", "", "last storage number for cyclic storage", 0, big, false, true},
        {"storage_block_size", "", "size of storage block", 0, big, false, true},
        {"storage_interval", "s", "storage interval", 0, big, false, true},
        {"storage_interval_months", "month", "storage interval in months", 0, big, false, true},
        {"storage_interval_years", "year", "storage interval in years", 0, big, false, true},
        {"duration_since_readout", "s", "duration since last readout", 0, big, false, true},
        {"tariff_start", "", "start (date and time) of tariff", 0, 0, false, false},
        {"tariff_duration", "s", "duration of tariff", 0, big, false, true},
        {"tariff_period", "s", "period of tariff", 0, big, false, true},
        {"tariff_period_months", "month", "period of tariff in months", 0, big, false, true},
        {"tariff_period_years", "year", "period of tariff in years", 0, big, false, true},
        {"dimensionless", "", "dimensionless", -big, big, false, true},
        {"voltage", "V", "voltage", -big, big, false, true},
        {"current", "A", "current", -big, big, false, true},
        {"reset_counter", "", "reset counter", 0, big, false, true},
        {"cumulation_counter", "", "cumulation counter", 0, big, false, true},
        {"control_signal", "", "control signal", -big, big, false, true},
        {"day_of_week", "", "day of week", 0, 7, false, true},
        {"week_number", "", "week number", 0, 53, false, true},
        {"day_change_time", "", "time point of day change", -big, big, false, true},
        {"parameter_activation_state", "", "state of parameter activation", -big, big, false, true},
        {"supplier_information", "", "special supplier information", -big, big, false, true},
        {"duration_since_cumulation", "s", "duration since last cumulation", 0, big, false, true},
        {"duration_since_cumulation_months", "month", "duration since last cumulation in months", 0, big,
         false, true},
        {"duration_since_cumulation_years", "year", "duration since last cumulation in years", 0, big, false,
         true},
        {"battery_operating_time", "s", "operating time of the battery", 0, big, false, true},
        {"battery_operating_time_months", "month", "operating time of the battery in months", 0, big, false,
         true},
        {"battery_operating_time_years", "year", "operating time of the battery in years", 0, big, false,
         true},
        {"battery_change_date", "", "date and time of battery change", 0, 0, false, false},
        {"rf_level", "dBm", "RF level", -200, 100, false, true},
        {"battery_lifetime", "s", "remaining battery lifetime", 0, big, false, true},
        {"meter_stopped_count", "", "number of times the meter was stopped", 0, big, false, true},
        // Extension table 0xfb.
        {"relative_humidity", "%", "relative humidity", 0, 100, false, true},
        {"temperature_limit", "°C", "cold/warm temperature limit", -273.15, 1000, false, true},
        {"cumulative_max_power", "W", "cumulative count of maximum power", -big, big, false, true},
    };
    return table;
}

const quantity_entry* find_quantity(const QString& name) {
    for (const quantity_entry& q : quantity_table()) {
        if (!q.retired && name == q.name) {
            return &q;
        }
    }
    return nullptr;
}

const std::vector<event_entry>& event_table() {
    static const std::vector<event_entry> table = {
        {ev_application_busy, "application_busy", "status bits 0-1 = 01; parameter: the status byte"},
        {ev_application_error, "application_error", "status bits 0-1 = 10; parameter: the status byte"},
        {ev_abnormal_condition, "abnormal_condition", "status bits 0-1 = 11; parameter: the status byte"},
        {ev_power_low, "power_low", "status bit 2; parameter: the status byte"},
        {ev_permanent_error, "permanent_error", "status bit 3; parameter: the status byte"},
        {ev_temporary_error, "temporary_error", "status bit 4; parameter: the status byte"},
        {ev_manufacturer_status, "manufacturer_status", "status bits 5-7; parameter: their value 1-7"},
        {ev_error_flag, "error_flag", "error-flags record (0xfd 0x17); one per set bit; parameter: the bit"},
    };
    return table;
}

model::device_description device_description() {
    model::device_description out;
    int number = 1;
    for (const quantity_entry& q : quantity_table()) {
        if (!q.is_value) {
            continue;
        }
        const int this_number = number++;
        if (q.retired) {
            continue;
        }
        model::device_parameter p;
        p.number = this_number;
        p.comment = q.comment;
        p.name = q.name;
        p.unit = q.unit;
        p.primary = q.primary;
        p.min_value = q.min_value;
        p.max_value = q.max_value;
        out << p;
    }
    number = 1;
    for (const event_entry& e : event_table()) {
        out << model::device_event_description{number++, e.comment, e.name, e.code};
    }
    out << model::device_control{1, "raw downlink: the message payload is sent to the meter unchanged",
                                 "raw_downlink"};
    return out;
}

}  // namespace mbus
