#include "commands/WriteSetting.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonValue>
#include <QString>

#include "commands/command_context.h"
#include "commands/handler_support.h"
#include "commands/modem_ok_reply.h"
#include "commands/query_readers.h"

namespace {

const QString settings_key = QStringLiteral("settings");

}  // namespace

WriteSetting::WriteSetting(std::shared_ptr<command_context> context) : m_context(std::move(context)) {}

QJsonObject WriteSetting::execute(const api_message& message) {
    const QJsonObject body = handler_support::command_body(message, *m_context, "write_setting");
    if (!body.contains(settings_key)) {
        return handler_support::fail_reply();
    }
    const settings_map settings = collect_owned(body.value(settings_key).toObject());
    m_context->driver->write_settings(settings);
    return modem_ok_reply(modems_of(settings));
}

model::setting_item WriteSetting::item_of(const QString& name, const QJsonValue& value) {
    model::setting_item item;
    item.name = name;
    if (value.isObject()) {
        item.document = QJsonDocument(value.toObject());
    } else if (value.isArray()) {
        item.document = QJsonDocument(value.toArray());
    } else {
        item.value = value.toVariant();
    }
    return item;
}

WriteSetting::settings_map WriteSetting::collect_owned(const QJsonObject& settings) const {
    const ownership owner = m_context->owner();
    settings_map owned;
    for (auto it = settings.begin(); it != settings.end(); ++it) {
        const auto modem_id = query_readers::modem_id_from_key(it.key(), *m_context);
        if (modem_id && owner.is_mine(*modem_id)) {
            owned[*modem_id] = items_of(it.value().toObject());
        }
    }
    return owned;
}

QList<model::setting_item> WriteSetting::items_of(const QJsonObject& settings) {
    QList<model::setting_item> items;
    for (auto it = settings.begin(); it != settings.end(); ++it) {
        items.append(item_of(it.key(), it.value()));
    }
    return items;
}

QList<int> WriteSetting::modems_of(const settings_map& settings) {
    QList<int> modems;
    for (const auto& entry : settings) {
        modems.append(entry.first);
    }
    return modems;
}
