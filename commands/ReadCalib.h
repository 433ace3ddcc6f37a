#pragma once

#include <QJsonObject>
#include <QList>
#include <QStringList>
#include <memory>

#include "commands/ICommandHandler.h"
#include "model/device_description.h"

struct command_context;

// "read_calib": asks the driver for calibrations of the owned modems of "modem_id"
// (names from "calibs", all when absent); the reply nests
// modem -> first-level name -> second-level name -> number.
class ReadCalib : public ICommandHandler {
public:
    explicit ReadCalib(std::shared_ptr<command_context> context);
    QJsonObject execute(const api_message& message) override;

private:
    QList<model::calib_result> read_from_driver(const QList<int>& modems, const QStringList& names);
    static QJsonObject nest(const QList<model::calib_result>& results);

    std::shared_ptr<command_context> m_context;
};
