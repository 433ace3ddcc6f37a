#include "commands/command_factory.h"

#include <stdexcept>

#include "commands/CustomRequest.h"
#include "commands/Device.h"
#include "commands/DownlinkQueueMessage.h"
#include "commands/ExitNormal.h"
#include "commands/GetDownlinkMessage.h"
#include "commands/GetIDs.h"
#include "commands/GetInfo.h"
#include "commands/GetMetadata.h"
#include "commands/SendDownlinkMessage.h"
#include "commands/StatusDownlinkMessage.h"

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
