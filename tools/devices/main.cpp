// quillon-devices: lists and edits the device registry of a database plugin's store,
// loading the plugin the way the service does and using only its registry interface.

#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTextStream>
#include <cstdio>
#include <stdexcept>

#include "app/logger.h"
#include "plugins/PluginsManager.h"
#include "tools/devices/device_options.h"

namespace {

QTextStream& out() {
    static QTextStream stream(stdout);
    return stream;
}

QTextStream& err() {
    static QTextStream stream(stderr);
    return stream;
}

// Without --verbose only warnings and errors of the plugin loading reach the terminal.
void quiet_messages(QtMsgType type, const QMessageLogContext&, const QString& text) {
    if (type == QtDebugMsg || type == QtInfoMsg)
        return;
    err() << text << Qt::endl;
}

class tool_error : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

[[noreturn]] void fail(const QString& text) {
    throw tool_error(text.toStdString());
}

// A plugin whose configuration names a store file ("path") would create an empty store
// when the file is missing; that is refused unless asked for.
void check_store_exists(const QJsonObject& configuration, bool create) {
    const QString path = configuration.value("path").toString();
    if (path.isEmpty() || create)
        return;
    const QFileInfo file(path);
    if (!file.exists())
        fail(QString("the store %1 does not exist (use --create to start a new one)")
                 .arg(file.absoluteFilePath()));
}

void list(interfaces::IDeviceClientsDatabase& registry, bool json) {
    const auto devices = registry.devices();
    if (json) {
        QJsonObject entries;
        for (const auto& [id, device] : devices)
            entries.insert(QString::number(id),
                           QJsonObject{{"protocol", device.protocol},
                                       {"hw_type", device.hw_type},
                                       {"clients", QJsonArray::fromStringList(device.clients)}});
        out() << QJsonDocument(QJsonObject{{"devices", entries}}).toJson(QJsonDocument::Indented);
        return;
    }
    for (const auto& [id, device] : devices)
        out() << id << '\t' << device.protocol << '\t' << device.hw_type << '\t' << device.clients.join(',')
              << Qt::endl;
}

int run(const device_options& options) {
    // Failures are reported on stderr; the manager's log lines are dropped by a logger
    // whose file (a directory) never opens, which writes nothing and warns about nothing.
    logger log(QDir::rootPath(), Off, "quillon-devices");
    PluginsManager plugins(options.pm, log);
    // The manager falls back to the in-memory plugin; that is no store to edit.
    if (!plugins.has_database() ||
        !QFileInfo(plugins.database_plugin_path()).baseName().contains(options.pm.db_name))
        fail(QString("no database plugin \"%1\" in %2").arg(options.pm.db_name, options.pm.plugin_path));
    check_store_exists(plugins.database_configuration(), options.create);

    auto registry = plugins.clients_database();
    const int id = options.modem_id;
    switch (options.command) {
        case device_options::action::list:
            list(*registry, options.json);
            break;
        case device_options::action::add: {
            const bool existed = registry->devices().count(id) > 0;
            registry->set_device(
                id, {*options.protocol, *options.hw_type, options.clients.value_or(QStringList())});
            out() << (existed ? "replaced device " : "added device ") << id << Qt::endl;
            break;
        }
        case device_options::action::update: {
            const auto devices = registry->devices();
            const auto found = devices.find(id);
            if (found == devices.end())
                fail(QString("no device %1 in the registry").arg(id));
            model::device_record device = found->second;
            device.protocol = options.protocol.value_or(device.protocol);
            device.hw_type = options.hw_type.value_or(device.hw_type);
            device.clients = options.clients.value_or(device.clients);
            registry->set_device(id, device);
            out() << "updated device " << id << Qt::endl;
            break;
        }
        case device_options::action::remove:
            if (!registry->remove_device(id))
                fail(QString("no device %1 in the registry").arg(id));
            out() << "removed device " << id << Qt::endl;
            break;
    }
    return 0;
}

}  // namespace

int main(int argc, char* argv[]) {
    QCoreApplication app(argc, argv);
    const QStringList arguments = app.arguments().mid(1);
    if (arguments.contains("-h") || arguments.contains("--help")) {
        out() << device_usage();
        return 0;
    }
    device_options options;
    try {
        options = parse_device_options(arguments);
    } catch (const std::invalid_argument& e) {
        err() << "quillon-devices: " << e.what() << "\nTry quillon-devices --help." << Qt::endl;
        return 2;
    }
    if (!options.verbose)
        qInstallMessageHandler(quiet_messages);
    try {
        return run(options);
    } catch (const std::exception& e) {
        err() << "quillon-devices: " << e.what() << Qt::endl;
    } catch (const QString& text) {
        err() << "quillon-devices: " << text << Qt::endl;
    }
    return 1;
}
