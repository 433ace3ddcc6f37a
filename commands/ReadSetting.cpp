#include "commands/ReadSetting.h"

#include <QJsonValue>
#include <QString>
#include <QVariantMap>
#include <map>

#include "commands/command_context.h"
#include "commands/handler_support.h"
#include "commands/keyed_reply.h"
#include "commands/query_readers.h"

namespace {

const QString modem_id_key = QStringLiteral("modem_id");
const QString settings_key = QStringLiteral("settings");

QJsonObject to_reply(const std::map<int, QJsonObject>& per_modem) {
    keyed_reply reply;
    for (const auto& [modem_id, object] : per_modem) {
        reply.insert(modem_id, object);
    }
    return reply.take();
}

}  // namespace

ReadSetting::ReadSetting(std::shared_ptr<command_context> context) : m_context(std::move(context)) {}

QJsonObject ReadSetting::execute(const api_message& message) {
    const QJsonObject body = handler_support::command_body(message, *m_context, "read_setting");
    if (!body.contains(modem_id_key)) {
        return handler_support::fail_reply();
    }
    const QList<int> modems = query_readers::owned_modem_ids(body.value(modem_id_key), *m_context);
    const bool names_asked = body.contains(settings_key);
    const QStringList names = query_readers::read_strings(body.value(settings_key));
    const QList<model::setting_result> results = read_from_driver(modems, names);
    return names_asked ? nest_by_name(results) : whole_per_modem(results);
}

QList<model::setting_result> ReadSetting::read_from_driver(const QList<int>& modems,
                                                           const QStringList& names) {
    QList<model::setting_result> results;
    m_context->driver->read_settings(results, modems, names);
    return results;
}

QJsonObject ReadSetting::nest_by_name(const QList<model::setting_result>& results) {
    std::map<int, QJsonObject> per_modem;
    for (const model::setting_result& result : results) {
        per_modem[result.modem_id].insert(result.name, QJsonValue::fromVariant(result.value));
    }
    return to_reply(per_modem);
}

QJsonObject ReadSetting::whole_per_modem(const QList<model::setting_result>& results) {
    std::map<int, QJsonObject> per_modem;
    for (const model::setting_result& result : results) {
        // Each result carries a whole settings map; several maps of one modem merge.
        const QJsonObject settings = QJsonObject::fromVariantMap(result.value.toMap());
        QJsonObject& target = per_modem[result.modem_id];
        for (auto it = settings.begin(); it != settings.end(); ++it) {
            target.insert(it.key(), it.value());
        }
    }
    return to_reply(per_modem);
}
