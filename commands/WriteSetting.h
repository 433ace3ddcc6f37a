#pragma once

#include <QJsonObject>
#include <QList>
#include <map>
#include <memory>

#include "commands/ICommandHandler.h"
#include "model/device_description.h"

struct command_context;

// "write_setting": "settings" maps modem ids (decimal keys) to objects of setting name
// -> new value. Owned modems are handed to the driver in one call and answered "ok".
class WriteSetting : public ICommandHandler {
public:
    using settings_map = std::map<int, QList<model::setting_item>>;

    explicit WriteSetting(std::shared_ptr<command_context> context);
    QJsonObject execute(const api_message& message) override;

    // Object and array values travel as a document, scalars as a variant.
    static model::setting_item item_of(const QString& name, const QJsonValue& value);

private:
    settings_map collect_owned(const QJsonObject& settings) const;
    static QList<model::setting_item> items_of(const QJsonObject& settings);
    static QList<int> modems_of(const settings_map& settings);

    std::shared_ptr<command_context> m_context;
};
