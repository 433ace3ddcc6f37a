#include "commands/ReparseModem.h"

#include <QJsonArray>
#include <QJsonValue>
#include <QString>
#include <QStringList>

#include "commands/command_context.h"
#include "commands/handler_support.h"
#include "commands/modem_ok_reply.h"
#include "commands/query_readers.h"

namespace {

// The state entries that survive a reset: calibrations and the web application's data.
const QStringList kept_entries = {QStringLiteral("calib"), QStringLiteral("webapp")};

const QString history_command = QStringLiteral("get_ul_history");
const QString network_server_key = QStringLiteral("cmd.in.netcore");
constexpr int history_limit = 10000000;

// Reparse marks a reset state with this flag (the engine closes its changes with 0).
constexpr int reparse_mark = 1;

QJsonArray to_array(const QList<int>& ids) {
    QJsonArray array;
    for (int id : ids) {
        array.append(id);
    }
    return array;
}

}  // namespace

ReparseModem::ReparseModem(std::shared_ptr<command_context> context) : m_context(std::move(context)) {}

QJsonObject ReparseModem::execute(const api_message& message) {
    const QJsonObject body = handler_support::command_body(message, *m_context, "reparse_modem");
    const QList<int> modems = query_readers::owned_modem_ids(body.value("modem_id"), *m_context);
    const QDateTime from = query_readers::read_from(body);
    const QDateTime to = query_readers::read_to(body);
    const bool request = body.value("request").toBool(false);
    if (!modems.isEmpty()) {
        reparseDevices(modems, from, to, request);
    }
    return modem_ok_reply(modems);
}

bool ReparseModem::reparseDevices(QList<int> const& modems, QDateTime const& from, QDateTime const& to,
                                  bool request) {
    for (int modem_id : modems) {
        reset_state(modem_id);
    }
    if (request) {
        request_history(modems, from, to);
    }
    return true;
}

void ReparseModem::reset_state(int modem_id) {
    interfaces::IDriverState& state = *m_context->state;
    state.begin(modem_id);
    QJsonObject kept;
    for (const QString& entry : kept_entries) {
        const QJsonValue value = state.get(modem_id, entry);
        if (!value.isUndefined()) {
            kept.insert(entry, value);
        }
    }
    if (kept.isEmpty()) {
        state.remove(modem_id);
    } else {
        state.save(modem_id, kept);
    }
    state.end(modem_id, reparse_mark);
}

void ReparseModem::request_history(const QList<int>& modems, const QDateTime& from, const QDateTime& to) {
    const QJsonObject data{
        {"api_key", m_context->api_config.api_key},
        {"ids", to_array(modems)},
        {"from", from.toSecsSinceEpoch()},
        {"to", to.toSecsSinceEpoch()},
        {"limit", history_limit},
        {"routing_key_prefix", m_context->history_routing_key_prefix},
    };
    // The answer is not used: the history arrives through the uplink queue.
    m_context->engine->send_command(history_command, data, network_server_key);
}
