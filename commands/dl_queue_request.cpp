#include "commands/dl_queue_request.h"

#include <QJsonArray>
#include <algorithm>

#include "commands/query_readers.h"
#include "model/queries.h"

int dl_queue_mode_from_text(const QString& text) {
    static const QStringList names = {"normal",        "queue_compact", "queue_list",
                                      "modem_compact", "modem_count",   "modem_list"};
    const int code = names.indexOf(text.toLower());
    return code < 0 ? mode_normal : code;
}

namespace {

bool is_many_modem_request(const QJsonObject& body) {
    const QJsonValue all = body.value("all");
    return all.isObject() && all.toObject().value("modem_id").isArray();
}

// The "all" object without "modem_id" becomes the request of each listed modem.
void expand_all(QJsonObject& body, dl_queue_request& request, const command_context& context) {
    request.has_all = true;
    request.all_request = body.take("all").toObject();
    request.all_ids = query_readers::modem_ids(request.all_request.value("modem_id"), context);
}

// A page of at most the cap; 0 or less asks for all, which is the cap as well.
int listing_limit(const QJsonObject& body) {
    const int limit = body.value("limit").toInt(0);
    return limit <= 0 ? model::max_history_limit : std::min(limit, model::max_history_limit);
}

}  // namespace

dl_queue_request read_dl_queue_request(QJsonObject body, const command_context& context) {
    dl_queue_request request;
    request.mode = dl_queue_mode_from_text(body.value("mode").toString());
    if (is_many_modem_request(body)) {
        expand_all(body, request, context);
    }
    request.admin = body.value("admin").toBool(false);
    request.offset = body.value("offset").toInt(0);
    request.limit = listing_limit(body);
    for (const char* control : {"limit", "offset", "mode", "admin"}) {
        body.remove(control);
    }
    for (auto it = body.begin(); it != body.end(); ++it) {
        request.addressees.emplace_hint(request.addressees.end(), it.key(), it.value());
    }
    if (request.has_all) {
        QJsonObject per_modem = request.all_request;
        per_modem.remove("modem_id");
        for (int id : request.all_ids) {
            request.addressees[QString::number(id)] = per_modem;
        }
    }
    return request;
}
