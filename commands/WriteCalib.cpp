#include "commands/WriteCalib.h"

#include <QJsonValue>
#include <QString>

#include "commands/command_context.h"
#include "commands/handler_support.h"
#include "commands/modem_ok_reply.h"
#include "commands/query_readers.h"

namespace {

const QString calibs_key = QStringLiteral("calibs");

}  // namespace

WriteCalib::WriteCalib(std::shared_ptr<command_context> context) : m_context(std::move(context)) {}

QJsonObject WriteCalib::execute(const api_message& message) {
    const QJsonObject body = handler_support::command_body(message, *m_context, "write_calib");
    if (!body.contains(calibs_key)) {
        return handler_support::fail_reply();
    }
    const calibs_map calibs = collect_owned(body.value(calibs_key).toObject());
    m_context->driver->write_calibs(calibs);
    return modem_ok_reply(modems_of(calibs));
}

WriteCalib::calibs_map WriteCalib::collect_owned(const QJsonObject& calibs) const {
    const ownership owner = m_context->owner();
    calibs_map owned;
    for (auto it = calibs.begin(); it != calibs.end(); ++it) {
        const auto modem_id = query_readers::modem_id_from_key(it.key(), *m_context);
        if (modem_id && owner.is_mine(*modem_id)) {
            owned[*modem_id] = items_of(it.value().toObject());
        }
    }
    return owned;
}

QList<model::calib_item> WriteCalib::items_of(const QJsonObject& groups) {
    QList<model::calib_item> items;
    for (auto group = groups.begin(); group != groups.end(); ++group) {
        const QJsonObject names = group.value().toObject();
        for (auto name = names.begin(); name != names.end(); ++name) {
            items.append(model::calib_item{group.key(), name.key(), name.value().toDouble(0)});
        }
    }
    return items;
}

QList<int> WriteCalib::modems_of(const calibs_map& calibs) {
    QList<int> modems;
    for (const auto& entry : calibs) {
        modems.append(entry.first);
    }
    return modems;
}
