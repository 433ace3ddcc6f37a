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
#include "model/meter_link.h"
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

// The meter's address as one word: manufacturer, identification, version, medium; "-"
// for what is not registered.
QString meter_address(const model::meter_link& m) {
    auto or_dash = [](const QString& text) { return text.isEmpty() ? QString("-") : text; };
    auto byte = [](int value) { return value < 0 ? QString("-") : QString::number(value); };
    return QString("%1/%2/%3/%4")
        .arg(or_dash(m.manufacturer), or_dash(m.identification), byte(m.version), byte(m.medium));
}

// Never prints a key: only whether one is set.
void list(interfaces::IDeviceClientsDatabase& registry, bool json) {
    const auto devices = registry.devices();
    if (json) {
        QJsonObject entries;
        for (const auto& [id, device] : devices) {
            QJsonObject entry = model::meter_link_public_json(device.meter);
            entry["protocol"] = device.protocol;
            entry["hw_type"] = device.hw_type;
            entry["clients"] = QJsonArray::fromStringList(device.clients);
            entries.insert(QString::number(id), entry);
        }
        out() << QJsonDocument(QJsonObject{{"devices", entries}}).toJson(QJsonDocument::Indented);
        return;
    }
    for (const auto& [id, device] : devices)
        out() << id << '\t' << device.protocol << '\t' << device.hw_type << '\t' << device.clients.join(',')
              << '\t' << meter_address(device.meter) << '\t'
              << (device.meter.has_key() ? "key set" : "no key") << Qt::endl;
}

// The key from the option: "-" reads one line of standard input.
QByteArray key_from(const QString& option) {
    QString text = option;
    if (option == "-") {
        QTextStream in(stdin);
        text = in.readLine().trimmed();
    }
    if (text == "none")
        return QByteArray();
    try {
        return model::aes_key_from_hex(text);
    } catch (const std::invalid_argument& e) {
        fail(QString::fromUtf8(e.what()));
    }
}

void apply_meter_options(const device_options& options, model::meter_link& meter) {
    if (options.key_text)
        meter.aes_key = key_from(*options.key_text);
    meter.manufacturer = options.manufacturer.value_or(meter.manufacturer);
    meter.identification = options.identification.value_or(meter.identification);
    meter.version = options.version.value_or(meter.version);
    meter.medium = options.medium.value_or(meter.medium);
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
            model::device_record device{
                *options.protocol, *options.hw_type, options.clients.value_or(QStringList()), {}};
            apply_meter_options(options, device.meter);
            registry->set_device(id, device);
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
            apply_meter_options(options, device.meter);
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
