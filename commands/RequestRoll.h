#pragma once

#include <QJsonObject>
#include <memory>
#include <vector>

#include "commands/ICommandHandler.h"
#include "model/queries.h"
#include "model/records.h"

struct command_context;

// "request_roll": publishes the stored uplink messages of the owned modems of the query
// again to each client of their modem; the reply confirms each modem with "ok".
class RequestRoll : public ICommandHandler {
public:
    explicit RequestRoll(std::shared_ptr<command_context> context);
    QJsonObject execute(const api_message& message) override;

private:
    model::roll_query read_query(const api_message& message) const;
    model::per_modem<model::ul_message> load(const model::roll_query& query) const;
    void publish(const model::per_modem<model::ul_message>& messages) const;
    void publish_modem(int modem_id, const std::vector<model::ul_message>& messages) const;

    std::shared_ptr<command_context> m_context;
};
