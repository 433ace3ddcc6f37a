#pragma once

#include <QJsonObject>
#include <QList>

// {"<id>": "ok", ...}: the reply of the commands that only confirm which modems they
// handled, one key per modem id in decimal.
QJsonObject modem_ok_reply(const QList<int>& modem_ids);
