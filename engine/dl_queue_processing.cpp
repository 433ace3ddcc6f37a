// The engine's side of the downlink queues: what a queue entry turns into.
#include "engine/Engiene.h"
#include "engine/dl_queue_step.h"
#include "engine/dl_sending.h"

bool Engiene::processDlQueues(const controller_event& event) {
    if (!std::holds_alternative<model::ul_message>(event) || !m_config.settings.dl_queues) {
        return false;
    }
    const int modem_id = std::get<model::ul_message>(event).modem_id;
    dl_queue_step step(
        *m_state, m_messages->dl(),
        [this](const model::dl_queue_entry& entry, model::dl_message message) -> QJsonObject {
            if (entry.type == "raw") {
                message.payload =
                    QByteArray::fromHex(entry.data.value("raw_payload").toString().toLocal8Bit());
                message.ttl = QDateTime::currentDateTimeUtc().addSecs(m_config.ul_dl_ttl);
                message.protocol = m_driver->type_name();
                return sendRaw(message, QString());
            }
            if (entry.type == "typical") {
                return sendDlmessage(message);
            }
            return QJsonObject();
        },
        &m_log);
    step.run(modem_id);
    return true;
}
