#include "commands/ReadCalib.h"

#include <QJsonValue>
#include <QString>
#include <map>

#include "commands/command_context.h"
#include "commands/handler_support.h"
#include "commands/keyed_reply.h"
#include "commands/query_readers.h"

namespace {

const QString modem_id_key = QStringLiteral("modem_id");
const QString calibs_key = QStringLiteral("calibs");

}  // namespace

ReadCalib::ReadCalib(std::shared_ptr<command_context> context) : m_context(std::move(context)) {}

QJsonObject ReadCalib::execute(const api_message& message) {
    const QJsonObject body = handler_support::command_body(message, *m_context, "read_calib");
    if (!body.contains(modem_id_key)) {
        return handler_support::fail_reply();
    }
    const QList<int> modems = query_readers::owned_modem_ids(body.value(modem_id_key), *m_context);
    const QStringList names = query_readers::read_strings(body.value(calibs_key));
    return nest(read_from_driver(modems, names));
}

QList<model::calib_result> ReadCalib::read_from_driver(const QList<int>& modems, const QStringList& names) {
    QList<model::calib_result> results;
    m_context->driver->read_calibs(results, modems, names);
    return results;
}

QJsonObject ReadCalib::nest(const QList<model::calib_result>& results) {
    // modem -> first-level name -> {second-level name: number}
    std::map<int, std::map<QString, QJsonObject>> groups;
    for (const model::calib_result& result : results) {
        groups[result.modem_id][result.group].insert(result.name, result.value);
    }
    keyed_reply reply;
    for (const auto& [modem_id, modem_groups] : groups) {
        QJsonObject modem;
        for (const auto& [group, names] : modem_groups) {
            modem.insert(group, names);
        }
        reply.insert(modem_id, modem);
    }
    return reply.take();
}
