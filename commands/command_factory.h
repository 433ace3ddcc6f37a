#pragma once

#include <QString>
#include <functional>
#include <memory>
#include <vector>

#include "commands/ICommandHandler.h"
#include "commands/command_context.h"

// One row of the command-name table: the exact, case-sensitive command name and how to
// create its handler.
struct command_row {
    QString name;
    std::function<std::shared_ptr<ICommandHandler>(std::shared_ptr<command_context>)> create;
};

// The rows of every known command.
const std::vector<command_row>& command_table();

// The factory handed to the command client: a fresh handler for every command, with the
// context bound; an unknown name throws std::runtime_error "<name> does not exist".
command_factory make_command_factory(std::shared_ptr<command_context> context);
