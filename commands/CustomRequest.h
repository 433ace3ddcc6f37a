#pragma once

#include <memory>

#include "commands/ICommandHandler.h"
#include "commands/command_context.h"
#include "model/records.h"

// "custom_request": a free-form query answered by the protocol driver of the instance
// it names (or, without an instance, for the modems this instance serves).
class CustomRequest : public ICommandHandler {
public:
    explicit CustomRequest(std::shared_ptr<command_context> context);
    QJsonObject execute(const api_message& message) override;

    // Hooks for records arriving while a query is answered; nothing arrives here.
    virtual void on_roll(model::ul_message message);
    virtual void on_value(model::dev_value value);
    virtual void on_event(model::dev_event event);

private:
    model::custom_query read_query(const QJsonObject& body) const;
    model::custom_query own_modems_only(model::custom_query query) const;
    QJsonObject for_named_instance(const model::custom_query& query) const;

    std::shared_ptr<command_context> m_context;
};
