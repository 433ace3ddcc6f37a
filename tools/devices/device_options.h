#pragma once

#include <QString>
#include <QStringList>
#include <optional>

#include "app/config.h"

// What quillon-devices was asked to do, read from its command line.
struct device_options {
    enum class action { list, add, update, remove };

    action command = action::list;
    int modem_id = 0;
    std::optional<QString> protocol;
    std::optional<QString> hw_type;
    std::optional<QStringList> clients;
    // The meter's link-layer address and key; checked when read. key_text "-" is read
    // from standard input by the tool (so the key stays out of the process list), "none"
    // removes the key.
    std::optional<QString> manufacturer;
    std::optional<QString> identification;
    std::optional<int> version;
    std::optional<int> medium;
    std::optional<QString> key_text;
    bool json = false;     // list as the "devices" seed object
    bool create = false;   // allow a store file that does not exist yet
    bool verbose = false;  // keep the plugin loader's diagnostic lines
    PMConfig pm;
};

// The usage text printed by --help.
QString device_usage();

// Reads the arguments (without the program name). Throws std::invalid_argument with a
// message for the user on a bad command line, a bad modem id or an unreadable INI file.
// --help is handled by the caller before.
device_options parse_device_options(const QStringList& arguments);
