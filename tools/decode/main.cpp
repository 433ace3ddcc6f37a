// quillon-decode: decodes payloads with a protocol-driver plugin as the service would
// and prints, per payload, one JSON object with the stored message, values and events.
#include <QCommandLineParser>
#include <QCoreApplication>
#include <QJsonDocument>
#include <QJsonObject>
#include <QRegularExpression>
#include <QTextStream>
#include <exception>

#include "decode_session.h"

namespace {

bool verbose = false;

// The plugin manager reports its scan through qDebug and Qt warns about the log file the
// tool does not keep: shown only with --verbose, so stderr carries the tool's own errors.
void quiet_qt(QtMsgType, const QMessageLogContext&, const QString& text) {
    if (verbose) {
        QTextStream(stderr) << text << '\n';
    }
}

int fail(const QString& text, int status) {
    QTextStream(stderr) << "quillon-decode: " << text << '\n';
    return status;
}

}  // namespace

int main(int argc, char* argv[]) {
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName("quillon-decode");
    qInstallMessageHandler(quiet_qt);

    QCommandLineParser parser;
    parser.setApplicationDescription(
        "Decodes uplink payloads with a protocol-driver plugin and prints one JSON object per payload: "
        "{\"payload\", \"message\", \"values\", \"events\"}.");
    parser.addHelpOption();
    const QCommandLineOption plugin_dir("plugin-dir", "Directory of the plugins (default: this tool's own).",
                                        "DIR", QCoreApplication::applicationDirPath());
    const QCommandLineOption protocol("protocol", "Protocol whose driver decodes (default proto7).", "P",
                                      "proto7");
    const QCommandLineOption instance("instance", "Instance name matched with the protocol (default marl2).",
                                      "NAME", "marl2");
    const QCommandLineOption modem("modem-id", "Modem id of the uplink (default 0).", "N", "0");
    const QCommandLineOption detected("time-detected",
                                      "Detection time, seconds since 1970 UTC (default now).", "SECONDS");
    const QCommandLineOption meter(
        "meter",
        "The meter's registry entry for encrypted payloads, as JSON: {\"aes_key\", \"manufacturer\", "
        "\"identification\", \"version\", \"medium\"}; - reads it from standard input.",
        "JSON");
    const QCommandLineOption pretty("pretty", "Indented output.");
    const QCommandLineOption chatty("verbose", "Show Qt's messages from plugin loading.");
    parser.addOptions({plugin_dir, protocol, instance, modem, detected, meter, pretty, chatty});
    parser.addPositionalArgument("HEX", "Payload in hexadecimal.", "HEX...");
    parser.process(app);
    verbose = parser.isSet(chatty);

    const QStringList hex = parser.positionalArguments();
    if (hex.isEmpty()) {
        return fail("no payload given (see --help)", 2);
    }
    static const QRegularExpression hex_form("^([0-9a-fA-F]{2})+$");
    for (const QString& h : hex) {
        if (!hex_form.match(h).hasMatch()) {
            return fail(QString("not a hex payload: '%1'").arg(h), 2);
        }
    }

    decode_options options;
    options.plugin_dir = parser.value(plugin_dir);
    options.protocol = parser.value(protocol);
    options.instance = parser.value(instance);
    bool ok = true;
    options.modem_id = parser.value(modem).toInt(&ok);
    if (!ok) {
        return fail(QString("not a modem id: '%1'").arg(parser.value(modem)), 2);
    }
    if (parser.isSet(detected)) {
        const qint64 seconds = parser.value(detected).toLongLong(&ok);
        if (!ok) {
            return fail(QString("not a number of seconds: '%1'").arg(parser.value(detected)), 2);
        }
        options.time_detected = QDateTime::fromSecsSinceEpoch(seconds, Qt::UTC);
    }

    if (parser.isSet(meter)) {
        QByteArray text = parser.value(meter).toUtf8();
        if (text == "-") {
            text = QTextStream(stdin).readAll().toUtf8();
        }
        QJsonParseError error;
        const QJsonDocument document = QJsonDocument::fromJson(text, &error);
        if (!document.isObject()) {
            return fail("--meter is not a JSON object", 2);
        }
        try {
            options.meter = model::meter_link_from_json(document.object());
        } catch (const std::invalid_argument& e) {
            return fail(QString("--meter: %1").arg(e.what()), 2);
        }
    }

    try {
        decode_session session(options);
        QTextStream out(stdout);
        const auto format = parser.isSet(pretty) ? QJsonDocument::Indented : QJsonDocument::Compact;
        for (const QString& h : hex) {
            const QByteArray line =
                QJsonDocument(session.decode(QByteArray::fromHex(h.toLatin1()))).toJson(format);
            out << line.trimmed() << '\n';
        }
    } catch (const no_devive_type_implemented&) {
        return fail(QString("no driver for protocol '%1', instance '%2' in %3")
                        .arg(options.protocol, options.instance, options.plugin_dir),
                    3);
    } catch (const std::exception& e) {
        return fail(QString("%1 (plugin directory %2)").arg(e.what(), options.plugin_dir), 3);
    }
    return 0;
}
