#pragma once

#include <QSettings>
#include <QString>
#include <QStringList>
#include <cstdint>
#include <vector>

// Every key the configuration file may hold, with its type and default, in one table
// (config_keys.cpp). The loaders read their keys through it, --print-config prints it and
// the start-up check warns about whatever the file holds that is not in it, so the three
// cannot drift apart.
//
// Adding a key is one line in the table; the loader then reads it with key_text,
// key_bool, key_unsigned or key_int inside its group. Reading a key that is not in the
// table throws std::logic_error, so a forgotten line fails the first test that loads it.

enum class key_type {
    text,             // taken as written; a value with commas stays one text
    boolean,          // QVariant::toBool: empty, "0" and "false" are false, anything else true
    unsigned_number,  // QVariant::toUInt; what does not convert reads as 0
    integer,          // QVariant::toInt; what does not convert reads as 0
    level_word,       // a log level word: OFF, ERROR, WARNING, INFORM or DEBUG, exactly
};

enum class key_default {
    literal,         // the text in `fallback`
    executable_dir,  // the directory of the running executable
    other_key,       // the effective value of the key named in `fallback`, same group
};

enum class key_secrecy {
    none,
    whole_value,  // printed as ****
};

struct config_key {
    const char* group;
    const char* name;
    key_type type;
    const char* fallback;  // the default as it would be written in the file
    key_default default_kind = key_default::literal;
    key_secrecy secrecy = key_secrecy::none;
};

// The table, groups in the order they are printed.
const std::vector<config_key>& config_keys();
// The entry of a key, or nullptr.
const config_key* find_config_key(const QString& group, const QString& name);

// Inside settings.beginGroup(group): the key's effective value, the default filled in.
QString key_text(QSettings& settings, const char* name);
bool key_bool(QSettings& settings, const char* name);
uint32_t key_unsigned(QSettings& settings, const char* name);
int32_t key_int(QSettings& settings, const char* name);

// The effective value of a key as text that reads back the same ("true", "0", "OFF"),
// secrets masked: URLs lose their password, secret keys show ****.
QString printable_value(QSettings& settings, const config_key& key);
// The whole configuration, INI-like: [GROUP] then KEY=value, every key of the table.
QString print_configuration(QSettings& settings);

// What the file holds that the service will not use as the operator may think: unknown
// groups and keys, and values that do not convert (with what they read as). Each text
// is one finding, without a trailing newline.
QStringList configuration_warnings(QSettings& settings);
// Set when LOG_LEVEL holds a word that is not a level: the log is then off (as
// specified), so this goes to standard error alone. Empty otherwise.
QString log_level_warning(QSettings& settings);
