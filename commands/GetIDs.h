#pragma once

#include <memory>

#include "commands/ICommandHandler.h"
#include "commands/command_context.h"

// "get_ids": the identifiers registered for a hardware type and protocol.
class GetIDs : public ICommandHandler {
public:
    explicit GetIDs(std::shared_ptr<command_context> context);
    QJsonObject execute(const api_message& message) override;

private:
    bool filters_pass(const QString& hw_type, const QString& protocol) const;
    QJsonArray listed_ids(const QString& hw_type, const QString& protocol) const;

    std::shared_ptr<command_context> m_context;
};
