#include "app/config_keys.h"

#include <QCoreApplication>
#include <QTextStream>
#include <QVariant>
#include <stdexcept>

#include "app/config.h"
#include "app/logger.h"

namespace {

using T = key_type;
constexpr key_default exe_dir = key_default::executable_dir;
constexpr key_secrecy secret = key_secrecy::whole_value;

// One line per key; see config_keys.h. The groups print in the order they first appear.
const std::vector<config_key> table = {
    {"GENERAL_SETTINGS", "UL_CLIENT_SEND", T::boolean, "false"},
    {"GENERAL_SETTINGS", "UL_CLIENT_SEND_MSQ_TYPE_WRAPE", T::boolean, "false"},
    {"GENERAL_SETTINGS", "CHECK_IS_MINE", T::boolean, "true"},
    {"GENERAL_SETTINGS", "DL_QUEUES", T::boolean, "false"},
    {"GENERAL_SETTINGS", "EXCHANGE", T::text, "norvik.api"},
    {"GENERAL_SETTINGS", "R_HISTORY_ROUTE_KEY", T::text, "ul_history"},
    {"GENERAL_SETTINGS", "R_UL_ID", T::text, ""},
    {"GENERAL_SETTINGS", "R_UL_ROUTE_KEY", T::text, "ul"},
    {"GENERAL_SETTINGS", "UL_DL_TTL", T::unsigned_number, "365"},
    {"GENERAL_SETTINGS", "CONTROLER_PERIOD", T::unsigned_number, "1000"},
    {"GENERAL_SETTINGS", "BALANCER_ENABLED", T::boolean, "false"},
    {"GENERAL_SETTINGS", "BALANCER_ROUTE_KEY", T::text, "balancer"},
    {"GENERAL_SETTINGS", "R_HISTORY_PREFIX", T::text, ""},
    {"GENERAL_SETTINGS", "METRICS_PORT", T::integer, "0"},
    {"GENERAL_SETTINGS", "METRICS_ADDRESS", T::text, "127.0.0.1"},
    {"GENERAL_SETTINGS", "LOG_FILE_PATH", T::text, "quillon.log"},
    {"GENERAL_SETTINGS", "LOG_LEVEL", T::level_word, "ERROR"},

    {"AMQP_UL_SETTINGS", "R_LOGIN", T::text, default_broker_url},
    {"AMQP_UL_SETTINGS", "R_QUEUE", T::text, "test_parser"},
    {"AMQP_UL_SETTINGS", "R_VHOST", T::text, "/api"},
    {"AMQP_UL_SETTINGS", "R_PREFETCH", T::integer, "10"},
    {"AMQP_UL_SETTINGS", "R_QUEUE_TYPE", T::text, ""},
    {"AMQP_UL_SETTINGS", "R_DEAD_LETTER_EXCHANGE", T::text, ""},
    {"AMQP_UL_SETTINGS", "R_DEAD_LETTER_ROUTING_KEY", T::text, ""},
    {"AMQP_UL_SETTINGS", "R_HEARTBEAT", T::unsigned_number, "10"},
    {"AMQP_UL_SETTINGS", "R_CA_CERT", T::text, ""},

    {"AMQP_UL_CLIENT_SETTINGS", "R_LOGIN", T::text, default_broker_url},
    {"AMQP_UL_CLIENT_SETTINGS", "R_EXCHANGE", T::text, "norvik.api"},
    {"AMQP_UL_CLIENT_SETTINGS", "R_VHOST", T::text, "/api"},
    {"AMQP_UL_CLIENT_SETTINGS", "R_HEARTBEAT", T::unsigned_number, "10"},
    {"AMQP_UL_CLIENT_SETTINGS", "R_CA_CERT", T::text, ""},

    // Read by no part of this version; known, so that it is not reported as unknown.
    {"AMQP_DL_SETTINGS", "R_LOGIN", T::text, default_broker_url},
    {"AMQP_DL_SETTINGS", "R_EXCHANGE", T::text, "norvik.api"},
    {"AMQP_DL_SETTINGS", "R_VHOST", T::text, "/api"},
    {"AMQP_DL_SETTINGS", "R_HEARTBEAT", T::unsigned_number, "10"},
    {"AMQP_DL_SETTINGS", "R_CA_CERT", T::text, ""},

    {"AMQP_API_SETTINGS", "R_LOGIN", T::text, default_broker_url},
    {"AMQP_API_SETTINGS", "R_EXCHANGE_CMD", T::text, "norvik.api"},
    {"AMQP_API_SETTINGS", "R_VHOST", T::text, "/api"},
    {"AMQP_API_SETTINGS", "R_QUEUE", T::text, "quillon_cmd_in"},
    {"AMQP_API_SETTINGS", "R_BINDINGS", T::text, "norvik.api:cmd.in.quillon"},
    {"AMQP_API_SETTINGS", "SS_API_KEY", T::text, "qorvantelimbusardekton", key_default::literal, secret},
    {"AMQP_API_SETTINGS", "R_QUEUE_TYPE", T::text, ""},
    {"AMQP_API_SETTINGS", "R_DEAD_LETTER_EXCHANGE", T::text, ""},
    {"AMQP_API_SETTINGS", "R_DEAD_LETTER_ROUTING_KEY", T::text, ""},
    {"AMQP_API_SETTINGS", "R_HEARTBEAT", T::unsigned_number, "10"},
    {"AMQP_API_SETTINGS", "R_CA_CERT", T::text, ""},
    {"AMQP_API_SETTINGS", "R_ALLOW_READ", T::text, "*"},
    {"AMQP_API_SETTINGS", "R_ALLOW_WRITE", T::text, "*"},
    {"AMQP_API_SETTINGS", "R_ALLOW_ADMIN", T::text, "*"},

    {"PLUGIN_MANAGER_SETTINGS", "DB_NAME", T::text, "db_driver_mongo"},
    {"PLUGIN_MANAGER_SETTINGS", "INSTANCE_NAME", T::text, "marl2"},
    {"PLUGIN_MANAGER_SETTINGS", "PROTOCOL", T::text, "proto7"},
    {"PLUGIN_MANAGER_SETTINGS", "PLUGIN_CONFIG_PATH", T::text, "", exe_dir},
    {"PLUGIN_MANAGER_SETTINGS", "PLUGIN_DB_CONFIG_PATH", T::text, "PLUGIN_CONFIG_PATH",
     key_default::other_key},
    {"PLUGIN_MANAGER_SETTINGS", "PLUGIN_PATH", T::text, "", exe_dir},
};

// Key names that hold secrets even when their line forgets to say so.
bool secret_looking(const QString& name) {
    static const char* const words[] = {"PASSWORD", "PASSWD", "SECRET", "TOKEN", "API_KEY"};
    for (const char* word : words) {
        if (name.contains(QLatin1String(word), Qt::CaseInsensitive)) {
            return true;
        }
    }
    return false;
}

const config_key& entry_of(QSettings& settings, const char* name) {
    const config_key* key = find_config_key(settings.group(), QLatin1String(name));
    if (!key) {
        throw std::logic_error(QString("configuration key %1 of [%2] is missing from the key table")
                                   .arg(QLatin1String(name), settings.group())
                                   .toStdString());
    }
    return *key;
}

// QSettings' INI reader turns an unquoted value with commas into a list; a key means the
// whole text as written, so such a list is joined back.
QString as_text(const QVariant& value) {
    if (value.type() == QVariant::StringList) {
        return value.toStringList().join(',');
    }
    return value.toString();
}

QString default_text(QSettings& settings, const config_key& key) {
    switch (key.default_kind) {
        case key_default::literal:
            return QString::fromUtf8(key.fallback);
        case key_default::executable_dir:
            return QCoreApplication::applicationDirPath();
        case key_default::other_key:
            return key_text(settings, key.fallback);
    }
    return QString();
}

// The value in the file, or the default as text: converted by the same QVariant
// conversions either way.
QVariant raw_value(QSettings& settings, const config_key& key) {
    return settings.contains(key.name) ? settings.value(key.name) : QVariant(default_text(settings, key));
}

QString level_word(int level) {
    static const char* const words[] = {"OFF", "ERROR", "WARNING", "INFORM", "DEBUG"};
    return level >= Off && level <= Debug ? QString(words[level]) : QString("OFF");
}

QString mask(const config_key& key, const QString& value) {
    if (value.isEmpty()) {
        return value;
    }
    if (key.secrecy == key_secrecy::whole_value || secret_looking(key.name)) {
        return QStringLiteral("****");
    }
    return value.contains("://") ? mask_url_password(value) : value;
}

QString located(const config_key& key, const QString& value) {
    return QString("%1=%2 in [%3]").arg(QLatin1String(key.name), value, QLatin1String(key.group));
}

// Why the file's value of a key does not convert, or an empty text.
QString conversion_warning(QSettings& settings, const config_key& key) {
    const QVariant value = settings.value(key.name);
    const QString text = as_text(value);
    bool ok = true;
    switch (key.type) {
        case key_type::unsigned_number:
            value.toUInt(&ok);
            return ok ? QString() : located(key, text) + " is not a whole number of 0 or more: read as 0";
        case key_type::integer:
            value.toInt(&ok);
            return ok ? QString() : located(key, text) + " is not a whole number: read as 0";
        case key_type::boolean: {
            static const QStringList words = {"true", "false", "1", "0"};
            if (words.contains(text.trimmed(), Qt::CaseInsensitive)) {
                return QString();
            }
            return located(key, text) + " is not true or false: read as " +
                   (value.toBool() ? "true" : "false");
        }
        case key_type::text:
        case key_type::level_word:  // log_level_warning tells
            break;
    }
    return QString();
}

QString unknown_key_warning(const QString& group, const QString& name) {
    QString text = QString("unknown key %1 in [%2] is ignored").arg(name, group);
    for (const config_key& key : table) {
        if (group == QLatin1String(key.group) &&
            name.compare(QLatin1String(key.name), Qt::CaseInsensitive) == 0) {
            return text + QString(" (keys are case-sensitive: %1?)").arg(QLatin1String(key.name));
        }
    }
    for (const config_key& key : table) {
        if (name == QLatin1String(key.name)) {
            return text + QString(" (it belongs in [%1])").arg(QLatin1String(key.group));
        }
    }
    return text;
}

QStringList known_groups() {
    QStringList groups;
    for (const config_key& key : table) {
        if (!groups.contains(QLatin1String(key.group))) {
            groups.append(QLatin1String(key.group));
        }
    }
    return groups;
}

// Unknown keys, nested groups and conversion failures of one known group.
void check_group(QSettings& settings, const QString& group, QStringList& warnings) {
    settings.beginGroup(group);
    for (const QString& name : settings.childKeys()) {
        const config_key* key = find_config_key(group, name);
        if (!key) {
            warnings.append(unknown_key_warning(group, name));
            continue;
        }
        const QString why = conversion_warning(settings, *key);
        if (!why.isEmpty()) {
            warnings.append(why);
        }
    }
    for (const QString& nested : settings.childGroups()) {
        warnings.append(QString("unknown key %1/... in [%2] is ignored").arg(nested, group));
    }
    settings.endGroup();
}

}  // namespace

const std::vector<config_key>& config_keys() {
    return table;
}

const config_key* find_config_key(const QString& group, const QString& name) {
    for (const config_key& key : table) {
        if (group == QLatin1String(key.group) && name == QLatin1String(key.name)) {
            return &key;
        }
    }
    return nullptr;
}

QString key_text(QSettings& settings, const char* name) {
    return as_text(raw_value(settings, entry_of(settings, name)));
}

bool key_bool(QSettings& settings, const char* name) {
    return raw_value(settings, entry_of(settings, name)).toBool();
}

uint32_t key_unsigned(QSettings& settings, const char* name) {
    return raw_value(settings, entry_of(settings, name)).toUInt();
}

int32_t key_int(QSettings& settings, const char* name) {
    return raw_value(settings, entry_of(settings, name)).toInt();
}

QString printable_value(QSettings& settings, const config_key& key) {
    settings.beginGroup(key.group);
    const QVariant raw = raw_value(settings, key);
    settings.endGroup();
    switch (key.type) {
        case key_type::boolean:
            return raw.toBool() ? "true" : "false";
        case key_type::unsigned_number:
            return QString::number(raw.toUInt());
        case key_type::integer:
            return QString::number(raw.toInt());
        case key_type::level_word:
            return level_word(logger::level_from_word(as_text(raw)));
        case key_type::text:
            break;
    }
    return mask(key, as_text(raw));
}

QString print_configuration(QSettings& settings) {
    QString out;
    QTextStream stream(&out);
    const char* group = nullptr;
    for (const config_key& key : table) {
        if (!group || qstrcmp(group, key.group) != 0) {
            stream << (group ? "\n" : "") << "[" << key.group << "]\n";
            group = key.group;
        }
        stream << key.name << "=" << printable_value(settings, key) << "\n";
    }
    stream.flush();
    return out;
}

QStringList configuration_warnings(QSettings& settings) {
    QStringList warnings;
    const QStringList known = known_groups();
    for (const QString& name : settings.childKeys()) {
        warnings.append(QString("key %1 outside any group is ignored").arg(name));
    }
    for (const QString& group : settings.childGroups()) {
        if (known.contains(group)) {
            check_group(settings, group, warnings);
        } else {
            warnings.append(QString("unknown group [%1] is ignored").arg(group));
        }
    }
    return warnings;
}

QString log_level_warning(QSettings& settings) {
    settings.beginGroup("GENERAL_SETTINGS");
    const bool given = settings.contains("LOG_LEVEL");
    const QString word = as_text(settings.value("LOG_LEVEL"));
    settings.endGroup();
    if (!given || level_word(logger::level_from_word(word)) == word) {
        return QString();
    }
    return QString(
               "LOG_LEVEL=%1 in [GENERAL_SETTINGS] is not OFF, ERROR, WARNING, INFORM or DEBUG "
               "(exactly so): the log is off")
        .arg(word);
}
