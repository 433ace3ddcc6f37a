#include "tools/devices/device_options.h"

#include <QCoreApplication>
#include <QFileInfo>
#include <QSettings>
#include <stdexcept>

#include "model/meter_link.h"

namespace {

[[noreturn]] void bad(const QString& text) {
    throw std::invalid_argument(text.toStdString());
}

int modem_id_from(const QString& text) {
    bool ok = false;
    const int id = text.toInt(&ok, 10);
    if (!ok || id < 0)
        bad(QString("bad modem id \"%1\": expected a whole number from 0 to 2147483647").arg(text));
    return id;
}

QStringList clients_from(const QString& text) {
    QStringList clients;
    for (const QString& part : text.split(',', Qt::SkipEmptyParts))
        clients << part.trimmed();
    return clients;
}

int link_byte(const QString& option, const QString& text) {
    bool ok = false;
    const int value = text.toInt(&ok, 0);
    if (!ok || value < 0 || value > 255)
        bad(QString("%1 must be a whole number from 0 to 255 (decimal or 0x..), not \"%2\"")
                .arg(option, text));
    return value;
}

// Checks a key given on the command line now, so that a typo fails before the store is
// opened; the text is never repeated in the message.
QString key_option(const QString& text) {
    if (text != "-" && text != "none")
        model::aes_key_from_hex(text);
    return text;
}

template <class F>
auto checked(F read) -> decltype(read()) {
    try {
        return read();
    } catch (const std::invalid_argument& e) {
        bad(QString::fromUtf8(e.what()));
    }
}

}  // namespace

QString device_usage() {
    return QString(
        "Usage: quillon-devices [options] <command>\n"
        "\n"
        "Lists and edits the device registry (modem id -> protocol, hw_type, clients) of a\n"
        "database plugin's store, through the plugin itself.\n"
        "\n"
        "Commands:\n"
        "  list                         print every device: id, protocol, hw_type, clients\n"
        "  add <id> --protocol P --hw-type H [--clients c1,c2] [meter options]\n"
        "                               add a device, or replace it whole if it exists\n"
        "  update <id> [--protocol P] [--hw-type H] [--clients c1,c2] [meter options]\n"
        "                               change the given fields of an existing device\n"
        "  remove <id>                  remove a device\n"
        "\n"
        "Options:\n"
        "  -c, --config <file>          the service's INI file: PLUGIN_MANAGER_SETTINGS gives\n"
        "                               DB_NAME, PLUGIN_PATH and PLUGIN_DB_CONFIG_PATH\n"
        "  --plugin-dir <dir>           directory of the plugins (overrides PLUGIN_PATH)\n"
        "  --db <name>                  database plugin name, e.g. db_driver_sqlite\n"
        "                               (overrides DB_NAME)\n"
        "  --db-config <path>           directory or .json file of the plugin configuration\n"
        "                               (overrides PLUGIN_DB_CONFIG_PATH; default: plugin dir)\n"
        "  --create                     allow creating a store file that does not exist yet\n"
        "\n"
        "Meter options (wireless M-Bus meters whose telegrams are encrypted):\n"
        "  --aes-key <hex>|-|none       the meter's AES-128 key, 32 hex digits; - reads it from\n"
        "                               standard input (keeps it out of the process list);\n"
        "                               none removes it. list shows only whether a key is set\n"
        "  --manufacturer <ABC>         the meter's manufacturer code, three letters\n"
        "  --identification <12345678>  the meter's identification number, 8 digits\n"
        "  --version <0-255>            the meter's version\n"
        "  --medium <0-255>             the meter's device type (medium)\n"
        "                               (the last four are needed for short-header telegrams,\n"
        "                               whose application layer does not carry the address)\n"
        "  --json                       list as a \"devices\" object for a plugin configuration\n"
        "  -v, --verbose                show the plugin loader's diagnostic lines\n"
        "  -h, --help                   show this text\n"
        "\n"
        "Exit status: 0 on success, 1 when the store cannot be used or the device is\n"
        "unknown, 2 on a bad command line or modem id.\n");
}

device_options parse_device_options(const QStringList& arguments) {
    device_options o;
    QString config_file, plugin_dir, db_name, db_config;
    QStringList positional;
    for (int i = 0; i < arguments.size(); ++i) {
        const QString& arg = arguments[i];
        auto value = [&]() -> QString {
            if (i + 1 >= arguments.size())
                bad(QString("option %1 needs a value").arg(arg));
            return arguments[++i];
        };
        if (arg == "-c" || arg == "--config")
            config_file = value();
        else if (arg == "--plugin-dir")
            plugin_dir = value();
        else if (arg == "--db")
            db_name = value();
        else if (arg == "--db-config")
            db_config = value();
        else if (arg == "--protocol")
            o.protocol = value();
        else if (arg == "--hw-type")
            o.hw_type = value();
        else if (arg == "--clients")
            o.clients = clients_from(value());
        else if (arg == "--aes-key")
            o.key_text = checked([&] { return key_option(value()); });
        else if (arg == "--manufacturer")
            o.manufacturer = checked([&] { return model::manufacturer_from_text(value()); });
        else if (arg == "--identification")
            o.identification = checked([&] { return model::identification_from_text(value()); });
        else if (arg == "--version")
            o.version = link_byte(arg, value());
        else if (arg == "--medium")
            o.medium = link_byte(arg, value());
        else if (arg == "--json")
            o.json = true;
        else if (arg == "--create")
            o.create = true;
        else if (arg == "-v" || arg == "--verbose")
            o.verbose = true;
        else if (arg.startsWith('-') && arg.size() > 1 && !arg[1].isDigit())
            bad(QString("unknown option %1").arg(arg));
        else
            positional << arg;
    }

    if (positional.isEmpty())
        bad("no command given (list, add, update or remove)");
    const QString command = positional.takeFirst();
    const QMap<QString, device_options::action> commands{{"list", device_options::action::list},
                                                         {"add", device_options::action::add},
                                                         {"update", device_options::action::update},
                                                         {"remove", device_options::action::remove}};
    if (!commands.contains(command))
        bad(QString("unknown command \"%1\"").arg(command));
    o.command = commands.value(command);
    const int wanted = o.command == device_options::action::list ? 0 : 1;
    if (positional.size() != wanted)
        bad(wanted ? QString("%1 needs exactly one modem id").arg(command)
                   : QString("list takes no arguments"));
    if (wanted)
        o.modem_id = modem_id_from(positional.first());
    if (o.command == device_options::action::add && (!o.protocol || !o.hw_type))
        bad("add needs --protocol and --hw-type");
    const bool meter = o.key_text || o.manufacturer || o.identification || o.version || o.medium;
    if (o.command == device_options::action::update && !o.protocol && !o.hw_type && !o.clients && !meter)
        bad("update needs at least one of --protocol, --hw-type, --clients, --aes-key, --manufacturer, "
            "--identification, --version, --medium");

    if (!config_file.isEmpty()) {
        if (!QFileInfo(config_file).isReadable())
            bad(QString("cannot read the configuration file %1").arg(config_file));
        QSettings settings(config_file, QSettings::IniFormat);
        o.pm = load_pm_config(settings);
    } else {
        // The service's defaults: plugins and their configuration beside the executable.
        const QString here = QCoreApplication::applicationDirPath();
        o.pm.plugin_path = o.pm.plugin_config_path = o.pm.plugin_db_config_path = here;
    }
    if (!plugin_dir.isEmpty()) {
        o.pm.plugin_path = plugin_dir;
        if (config_file.isEmpty())
            o.pm.plugin_config_path = o.pm.plugin_db_config_path = plugin_dir;
    }
    if (!db_name.isEmpty())
        o.pm.db_name = db_name;
    if (!db_config.isEmpty())
        o.pm.plugin_db_config_path = db_config;
    return o;
}
