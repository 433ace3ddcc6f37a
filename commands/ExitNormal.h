#pragma once

#include <memory>

#include "commands/ICommandHandler.h"
#include "commands/command_context.h"

// "exit": answers {} and ends the event loop once the answer has been published.
class ExitNormal : public ICommandHandler {
public:
    explicit ExitNormal(std::shared_ptr<command_context> context);
    QJsonObject execute(const api_message& message) override;

private:
    std::shared_ptr<command_context> m_context;
};
