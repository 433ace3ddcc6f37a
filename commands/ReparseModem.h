#pragma once

#include <QDateTime>
#include <QJsonObject>
#include <QList>
#include <memory>

#include "commands/ICommandHandler.h"

struct command_context;

// "reparse_modem": resets the driver state of the owned modems of "modem_id" down to
// their "calib" and "webapp" entries and, with "request" true, asks the network
// server to deliver their uplink history from "from" to "to" again.
class ReparseModem : public ICommandHandler {
public:
    explicit ReparseModem(std::shared_ptr<command_context> context);
    QJsonObject execute(const api_message& message) override;

    // Resets each modem's state and, when `request` is true, sends the history request.
    bool reparseDevices(QList<int> const& modems, QDateTime const& from, QDateTime const& to, bool request);

private:
    // One change of the modem's state, closed with the reparse mark.
    void reset_state(int modem_id);
    void request_history(const QList<int>& modems, const QDateTime& from, const QDateTime& to);

    std::shared_ptr<command_context> m_context;
};
