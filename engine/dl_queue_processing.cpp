// The engine's side of the downlink queues: what a queue entry turns into.
#include "engine/Engiene.h"
#include "engine/dl_queue_step.h"
#include "engine/dl_sending.h"

bool Engiene::processDlQueues(const controller_event& event) {
    if (!std::holds_alternative<model::ul_message>(event) || !m_config.settings.dl_queues) {
        return false;
    }
    const int modem_id = std::get<model::ul_message>(event).modem_id;
    bool sent = false;
    dl_queue_step step(
        *m_state, m_messages->dl(),
        [this, &sent](const model::dl_queue_entry& entry, model::dl_message message) -> QJsonObject {
            sent = true;
            if (entry.type == "raw") {
                message.payload =
                    QByteArray::fromHex(entry.data.value("raw_payload").toString().toLocal8Bit());
                message.ttl = QDateTime::currentDateTimeUtc().addSecs(m_config.ul_dl_ttl);
                message.protocol = m_driver->type_name();
                return sendRaw(message, QString(), service_metrics::dl_source::queue);
            }
            if (entry.type == "typical") {
                return sendDriverBuilt(message, service_metrics::dl_source::queue);
            }
            return QJsonObject();
        },
        &m_log);
    using result = service_metrics::dl_queue_result;
    try {
        step.run(modem_id);
    } catch (...) {
        m_metrics->dl_queue_steps(result::error).inc();
        throw;
    }
    m_metrics->dl_queue_steps(sent ? result::sent : result::idle).inc();
    return true;
}
