#pragma once

#include <QJsonObject>
#include <QJsonValue>
#include <QList>
#include <QString>
#include <map>

#include "commands/command_context.h"

// Output modes of "dl_queue", by the code the handler keeps.
enum dl_queue_mode : int {
    mode_normal = 0,
    mode_queue_compact = 1,
    mode_queue_list = 2,
    mode_modem_compact = 3,
    mode_modem_count = 4,
    mode_modem_list = 5,
};

// The mode named by text, compared without regard to case; unknown texts are normal.
int dl_queue_mode_from_text(const QString& text);

// A "dl_queue" body split into its control keys and its addressees.
struct dl_queue_request {
    int mode = mode_normal;
    bool admin = false;
    int offset = 0;
    int limit = 0;  // page of an installation-wide listing: 0 (or less) and above the cap give the cap
    // Every remaining key: a modem id in decimal (not yet checked) and its request, in
    // the key order of a JSON object.
    std::map<QString, QJsonValue> addressees;
    // A many-modem request: the "all" object as sent and the ids it lists, each once.
    bool has_all = false;
    QJsonObject all_request;
    QList<int> all_ids;
};

// Reads the control keys, expands a many-modem "all" request into one addressee per
// listed modem, and leaves every other key as an addressee. A listed modem's "all"
// request replaces a key of its own.
dl_queue_request read_dl_queue_request(QJsonObject body, const command_context& context);
