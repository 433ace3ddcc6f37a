#pragma once

#include <memory>

#include "commands/ICommandHandler.h"
#include "commands/command_context.h"

// "get_metadata": metadata per modem or for one hardware type, from the application's
// metadata file ("app_id") or from the driver's device parameter description.
class GetMetadata : public ICommandHandler {
public:
    explicit GetMetadata(std::shared_ptr<command_context> context);
    QJsonObject execute(const api_message& message) override;

private:
    QJsonObject per_modem(const QJsonObject& body) const;
    QJsonObject per_hw_type(const QJsonObject& body) const;
    QJsonObject metadata_for(const QJsonObject& body, const QString& hw_type) const;
    QJsonObject file_metadata(const QString& app_id, const QString& hw_type) const;

    std::shared_ptr<command_context> m_context;
};
