#include "commands/dl_queue_request.h"

#include <QJsonArray>

#include "commands/query_readers.h"

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
    QJsonObject per_modem = request.all_request;
    per_modem.remove("modem_id");
    for (int id : request.all_ids) {
        body[QString::number(id)] = per_modem;
    }
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
    request.limit = body.value("limit").toInt(0);
    for (const char* control : {"limit", "offset", "mode", "admin"}) {
        body.remove(control);
    }
    request.addressees = body;
    return request;
}
