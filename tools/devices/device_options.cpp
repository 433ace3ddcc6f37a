#include "tools/devices/device_options.h"

#include <QCoreApplication>
#include <QFileInfo>
#include <QSettings>
#include <stdexcept>

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
        "  add <id> --protocol P --hw-type H [--clients c1,c2]\n"
        "                               add a device, or replace it whole if it exists\n"
        "  update <id> [--protocol P] [--hw-type H] [--clients c1,c2]\n"
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
    if (o.command == device_options::action::update && !o.protocol && !o.hw_type && !o.clients)
        bad("update needs at least one of --protocol, --hw-type, --clients");

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
