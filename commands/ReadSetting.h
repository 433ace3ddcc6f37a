#pragma once

#include <QJsonObject>
#include <QList>
#include <QStringList>
#include <memory>

#include "commands/ICommandHandler.h"
#include "model/device_description.h"

struct command_context;

// "read_setting": asks the driver for settings of the owned modems of "modem_id".
// With "settings" the reply nests modem -> setting name -> value; without it each
// modem's object is the whole settings map the driver returned for it.
class ReadSetting : public ICommandHandler {
public:
    explicit ReadSetting(std::shared_ptr<command_context> context);
    QJsonObject execute(const api_message& message) override;

private:
    QList<model::setting_result> read_from_driver(const QList<int>& modems, const QStringList& names);
    static QJsonObject nest_by_name(const QList<model::setting_result>& results);
    static QJsonObject whole_per_modem(const QList<model::setting_result>& results);

    std::shared_ptr<command_context> m_context;
};
