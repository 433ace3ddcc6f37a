#pragma once

#include <QJsonObject>
#include <QList>
#include <map>
#include <memory>

#include "commands/ICommandHandler.h"
#include "model/device_description.h"

struct command_context;

// "write_calib": "calibs" maps modem ids (decimal keys) to objects of first-level name
// -> second-level name -> number. Owned modems are handed to the driver in one call
// and answered "ok"; a value that is not a number is written as 0.
class WriteCalib : public ICommandHandler {
public:
    using calibs_map = std::map<int, QList<model::calib_item>>;

    explicit WriteCalib(std::shared_ptr<command_context> context);
    QJsonObject execute(const api_message& message) override;

private:
    calibs_map collect_owned(const QJsonObject& calibs) const;
    static QList<model::calib_item> items_of(const QJsonObject& groups);
    static QList<int> modems_of(const calibs_map& calibs);

    std::shared_ptr<command_context> m_context;
};
