#pragma once

#include <QJsonObject>
#include <QString>
#include <functional>
#include <memory>

#include "amqp/api_message.h"

// One API command. A fresh handler is created for every incoming command.
class ICommandHandler {
public:
    virtual ~ICommandHandler() = default;
    virtual QJsonObject execute(const api_message& message) = 0;
};

// Creates the handler for a command name; throws std::runtime_error
// "<name> does not exist" for an unknown name.
using command_factory = std::function<std::shared_ptr<ICommandHandler>(const QString&)>;
