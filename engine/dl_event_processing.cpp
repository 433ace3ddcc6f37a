// Downlink progress reports from the network server.
#include "engine/Engiene.h"

bool Engiene::processDlEvent(const model::dl_event& event) {
    if (!ownership::instance_matches(event.modem_id, m_config.instances, m_config.position)) {
        return false;
    }
    if (m_config.settings.check_is_mine) {
        const auto device = ownership::device_of(event.modem_id, m_clients.get(), m_messages.get());
        if (!m_acceptance->accepts(device.first, device.second)) {
            return false;
        }
    }
    const controller_event controller{event};
    if (!m_driver->needs_dl_processing(controller)) {
        return true;
    }
    const model::dl_message message = m_messages->dl().get(event.status_id);
    if (message.dl_status >= model::EXECUTED) {
        return true;
    }
    if (!message.data.contains("raw_payload")) {
        const int status = m_driver->new_dl_status(controller, message);
        if (status != message.dl_status) {
            m_messages->dl().set_status(message.db_id, status);
        }
    } else if (event.msg_type == "dl_success") {
        m_messages->dl().set_status(message.db_id, model::EXECUTED);
    } else if (event.msg_type == "dl_fault") {
        m_messages->dl().set_status(message.db_id, model::TIMEOUT);
    }
    return true;
}
