#pragma once

#include <memory>

#include "commands/ICommandHandler.h"
#include "commands/command_context.h"
#include "model/queries.h"

// "device": per modem, that this instance serves it and its last stored uplink.
class Device : public ICommandHandler {
public:
    explicit Device(std::shared_ptr<command_context> context);
    QJsonObject execute(const api_message& message) override;

private:
    model::roll_query read_query(QJsonObject body) const;
    QJsonObject describe_modem(const model::roll_query& query, int modem_id) const;

    std::shared_ptr<command_context> m_context;
};
