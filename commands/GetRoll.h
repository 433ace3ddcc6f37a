#pragma once

#include <QJsonObject>
#include <memory>

#include "commands/ICommandHandler.h"
#include "model/queries.h"
#include "model/records.h"

struct command_context;

// "get_roll": the stored uplink messages of the owned modems of the query,
// per modem in ascending order.
class GetRoll : public ICommandHandler {
public:
    explicit GetRoll(std::shared_ptr<command_context> context);
    QJsonObject execute(const api_message& message) override;

private:
    model::roll_query read_query(const api_message& message) const;
    model::per_modem<model::ul_message> load(const model::roll_query& query) const;

    std::shared_ptr<command_context> m_context;
};
