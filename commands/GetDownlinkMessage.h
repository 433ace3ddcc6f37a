#pragma once

#include <memory>

#include "commands/ICommandHandler.h"
#include "commands/command_context.h"
#include "model/queries.h"
#include "model/records.h"

// "get_dl_msg": stored downlinks of the served modems in a time range.
class GetDownlinkMessage : public ICommandHandler {
public:
    explicit GetDownlinkMessage(std::shared_ptr<command_context> context);
    QJsonObject execute(const api_message& message) override;

private:
    model::per_modem<model::dl_message> query_store(const QJsonObject& body) const;
    static QJsonObject to_reply(const model::per_modem<model::dl_message>& found);

    std::shared_ptr<command_context> m_context;
};
