#pragma once

#include <QString>
#include <QStringList>

#include "model/records.h"

struct command_context;

// What the re-publication commands share with live publication: the clients a
// modem's records go to, and the stored message that names the modem's hardware type.
namespace republication {

// The modem's clients in the store's order; the single client "null" when it has none.
// A client's index in publication is its position in this list.
QStringList clients_of(const command_context& context, int modem_id);

// A stored message that carries only what publication of an EAV record takes from it:
// the modem's hardware type (from the device registry, else the last stored uplink).
model::ul_message stored_message_of(const command_context& context, int modem_id);

// Always wrapped in the publication envelope.
constexpr bool wrap = true;

}  // namespace republication
