#pragma once

#include <memory>

#include "commands/ICommandHandler.h"
#include "commands/command_context.h"

// "status_dl_msg": stored downlinks by their database ids.
class StatusDownlinkMessage : public ICommandHandler {
public:
    explicit StatusDownlinkMessage(std::shared_ptr<command_context> context);
    QJsonObject execute(const api_message& message) override;

private:
    QJsonValue lookup(const QString& db_id) const;

    std::shared_ptr<command_context> m_context;
};
