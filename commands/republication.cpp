#include "commands/republication.h"

#include "commands/command_context.h"

namespace republication {

QStringList clients_of(const command_context& context, int modem_id) {
    QStringList clients = context.clients->clients_store().clients(modem_id);
    if (clients.isEmpty()) {
        clients.append(QStringLiteral("null"));
    }
    return clients;
}

model::ul_message stored_message_of(const command_context& context, int modem_id) {
    model::ul_message stored;
    stored.modem_id = modem_id;
    stored.hw_type = context.owner().device_of(modem_id).second;
    return stored;
}

}  // namespace republication
