#include "tools/cli/command_table.h"

#include <algorithm>

const std::vector<api_command>& api_commands() {
    static const std::vector<api_command> table = {
        {"get_info", "identity, version, start time and settings of the instance"},
        {"exit", "stops the service after answering {}"},
        {"get_metadata", "metadata per modem (modem_id) or for hw_type/protocol, optionally for app_id"},
        {"device", "per modem: served by this instance, and its last stored uplink"},
        {"get_ids", "identifiers known for hw_type and protocol (\"*\" for any)"},
        {"custom_request", "free-form query answered by the protocol driver"},
        {"send_dl_msg", "sends a downlink to each modem in modem_id; answers its database id"},
        {"status_dl_msg", "stored downlink messages by their database ids (db_id)"},
        {"get_dl_msg", "downlink messages of modems in a time range (not_acked for open ones)"},
        {"dl_queue", "lists, creates, updates, repeats, locks and deletes downlink queues"},
        {"get_roll", "stored uplink messages of modems"},
        {"get_roll_extract", "uplink messages of modems as the driver extracts them"},
        {"get_eav_value", "stored values of modems (obis_codes, tag, step thinning)"},
        {"get_eav_event", "stored events of modems"},
        {"get_eav_extract", "values of modems decoded again by the driver from stored uplinks"},
        {"get_eav_extract_event", "events of modems decoded again by the driver from stored uplinks"},
        {"request_roll", "publishes stored uplink messages again to the modems' clients"},
        {"request_eav_value", "publishes stored values again to the modems' clients"},
        {"request_eav_event", "publishes stored events again to the modems' clients"},
        {"read_setting", "reads device settings through the driver"},
        {"write_setting", "writes device settings through the driver"},
        {"read_calib", "reads calibration coefficients through the driver"},
        {"write_calib", "writes calibration coefficients through the driver"},
        {"reparse_modem", "resets the driver state of modems, optionally requesting their history again"},
    };
    return table;
}

bool is_api_command(const QString& name) {
    const auto& table = api_commands();
    return std::any_of(table.begin(), table.end(),
                       [&name](const api_command& command) { return name == QLatin1String(command.name); });
}

QString api_command_help() {
    QString text;
    for (const api_command& command : api_commands()) {
        text += QStringLiteral("  %1 %2\n")
                    .arg(QLatin1String(command.name), -24)
                    .arg(QLatin1String(command.description));
    }
    return text;
}
