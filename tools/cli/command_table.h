#pragma once

#include <QString>
#include <vector>

// The service's API commands with a one-line description each, for --help and for the
// warning about a name the service does not know.
struct api_command {
    const char* name;
    const char* description;
};

const std::vector<api_command>& api_commands();
bool is_api_command(const QString& name);
// The table as indented help text, one command a line.
QString api_command_help();
