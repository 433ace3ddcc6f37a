#pragma once

#include <QJsonObject>
#include <memory>

#include "commands/ICommandHandler.h"
#include "model/queries.h"
#include "model/records.h"

struct command_context;

// "get_eav_extract": values of the owned modems of the query as the protocol
// driver extracts them from the stored raw messages (no step thinning).
class GetEAVValuesExtract : public ICommandHandler {
public:
    explicit GetEAVValuesExtract(std::shared_ptr<command_context> context);
    QJsonObject execute(const api_message& message) override;

private:
    model::value_query read_query(const api_message& message) const;
    model::per_modem<model::dev_value> load(const model::value_query& query) const;

    std::shared_ptr<command_context> m_context;
};
