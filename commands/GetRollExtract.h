#pragma once

#include <QJsonObject>
#include <memory>

#include "commands/ICommandHandler.h"
#include "model/queries.h"
#include "model/records.h"

struct command_context;

// "get_roll_extract": uplink messages of the owned modems of the query as the
// protocol driver produces them from the stored raw messages.
class GetRollExtract : public ICommandHandler {
public:
    explicit GetRollExtract(std::shared_ptr<command_context> context);
    QJsonObject execute(const api_message& message) override;

private:
    model::roll_query read_query(const api_message& message) const;
    model::per_modem<model::ul_message> load(const model::roll_query& query) const;

    std::shared_ptr<command_context> m_context;
};
