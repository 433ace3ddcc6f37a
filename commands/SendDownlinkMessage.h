#pragma once

#include <memory>

#include "commands/ICommandHandler.h"
#include "commands/command_context.h"
#include "model/records.h"

// "send_dl_msg": has the engine build and send one downlink per served modem.
class SendDownlinkMessage : public ICommandHandler {
public:
    explicit SendDownlinkMessage(std::shared_ptr<command_context> context);
    QJsonObject execute(const api_message& message) override;

    // 30 days: the lifetime given to a request without a usable timeout.
    static constexpr int max_timeout = 2592000;

private:
    model::dl_message read_request(const QJsonObject& body) const;
    QJsonObject send_to_modem(const model::dl_message& request) const;
    QJsonObject send_to_modems(model::dl_message request, const QJsonObject& body) const;

    std::shared_ptr<command_context> m_context;
};
