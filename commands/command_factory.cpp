#include "commands/command_factory.h"

#include <stdexcept>

#include "commands/CustomRequest.h"
#include "commands/Device.h"
#include "commands/DownlinkQueueMessage.h"
#include "commands/ExitNormal.h"
#include "commands/GetDownlinkMessage.h"
#include "commands/GetEAV.h"
#include "commands/GetEAVEventsExtract.h"
#include "commands/GetEAVValuesExtract.h"
#include "commands/GetIDs.h"
#include "commands/GetInfo.h"
#include "commands/GetMetadata.h"
#include "commands/GetRoll.h"
#include "commands/GetRollExtract.h"
#include "commands/ReadCalib.h"
#include "commands/ReadSetting.h"
#include "commands/ReparseModem.h"
#include "commands/RequestEAV.h"
#include "commands/RequestRoll.h"
#include "commands/SendDownlinkMessage.h"
#include "commands/StatusDownlinkMessage.h"
#include "commands/WriteCalib.h"
#include "commands/WriteSetting.h"

namespace {

template <class Handler>
std::shared_ptr<ICommandHandler> create(std::shared_ptr<command_context> context) {
    return std::make_shared<Handler>(std::move(context));
}

}  // namespace

// Handlers take the shared context in their constructor; a new command is one new row.
const std::vector<command_row>& command_table() {
    static const std::vector<command_row> rows = {
        {"custom_request", &create<CustomRequest>},
        {"exit", &create<ExitNormal>},
        {"get_info", &create<GetInfo>},
        {"get_metadata", &create<GetMetadata>},
        {"device", &create<Device>},
        {"get_ids", &create<GetIDs>},
        {"send_dl_msg", &create<SendDownlinkMessage>},
        {"status_dl_msg", &create<StatusDownlinkMessage>},
        {"get_dl_msg", &create<GetDownlinkMessage>},
        {"dl_queue", &create<DownlinkQueueMessage>},
        {"get_roll", &create<GetRoll>},
        {"get_roll_extract", &create<GetRollExtract>},
        {"get_eav_value", &create<GetEAV<model::dev_value>>},
        {"get_eav_event", &create<GetEAV<model::dev_event>>},
        {"get_eav_extract", &create<GetEAVValuesExtract>},
        {"get_eav_extract_event", &create<GetEAVEventsExtract>},
        {"request_roll", &create<RequestRoll>},
        {"request_eav_value", &create<RequestEAV<model::dev_value>>},
        {"request_eav_event", &create<RequestEAV<model::dev_event>>},
        {"read_setting", &create<ReadSetting>},
        {"write_setting", &create<WriteSetting>},
        {"read_calib", &create<ReadCalib>},
        {"write_calib", &create<WriteCalib>},
        {"reparse_modem", &create<ReparseModem>},
    };
    return rows;
}

command_factory make_command_factory(std::shared_ptr<command_context> context) {
    return [context](const QString& name) -> std::shared_ptr<ICommandHandler> {
        for (const command_row& row : command_table()) {
            if (row.name == name) {
                return row.create(context);
            }
        }
        throw std::runtime_error((name + " does not exist").toStdString());
    };
}
