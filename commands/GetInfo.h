#pragma once

#include <memory>

#include "commands/ICommandHandler.h"
#include "commands/command_context.h"

// "get_info": who this instance is and how it is configured.
class GetInfo : public ICommandHandler {
public:
    explicit GetInfo(std::shared_ptr<command_context> context);
    QJsonObject execute(const api_message& message) override;

    static constexpr const char* version = "1.1.43";
    // 2025-09-26 13:52:49 UTC
    static constexpr qint64 build_timestamp = 1758894769;

private:
    QString instance_key() const;
    QJsonObject description() const;

    std::shared_ptr<command_context> m_context;
};
