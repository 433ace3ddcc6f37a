#pragma once

#include <QJsonValue>
#include <QSet>
#include <QString>
#include <map>
#include <memory>

#include "commands/ICommandHandler.h"
#include "commands/command_context.h"
#include "commands/dl_queue_output.h"
#include "commands/dl_queue_request.h"

// "dl_queue": inspects and edits the per-modem downlink queues, for single modems, for
// many modems at once ("all"), or across the installation (admin listings).
class DownlinkQueueMessage : public ICommandHandler {
public:
    explicit DownlinkQueueMessage(std::shared_ptr<command_context> context);
    QJsonObject execute(const api_message& message) override;

private:
    QJsonObject run(const QJsonObject& body);
    QJsonObject list_modems(const dl_queue_request& request) const;
    QJsonObject count_modems(const dl_queue_request& request) const;
    std::map<QString, QJsonValue> admin_addressees(const dl_queue_request& request) const;
    QJsonObject process_addressees(const dl_queue_request& request,
                                   const std::map<QString, QJsonValue>& addressees);
    QJsonObject process_modem(int modem_id, const QJsonObject& request, int mode);
    QJsonObject edit(int modem_id, model::dl_queues& set, const QString& action, const QJsonObject& request);
    QJsonObject all_echo(const dl_queue_request& request) const;

    std::shared_ptr<command_context> m_context;
    dl_queue_output::queue_list_table m_table;
    QSet<int> m_processed;
};
