#include "app/command_line.h"

#include <QCommandLineOption>

namespace command_line {

namespace {
int decimal_value(const QCommandLineParser& parser, const QString& name) {
    return parser.value(name).toInt(nullptr, 10);
}
}  // namespace

void set_application_identity() {
    QCoreApplication::setApplicationName("Quillon");
    QCoreApplication::setApplicationVersion("1.1.43");
}

void register_options(QCommandLineParser& parser) {
    // The value names are crossed with the descriptions (inst names the count); kept so.
    parser.addOption(QCommandLineOption(
        QStringList{"c"}, QCoreApplication::translate("main", "Config file (quillon.ini by default)"),
        "config", "quillon.ini"));
    parser.addOption(QCommandLineOption(
        QStringList{"i"}, QCoreApplication::translate("main", "Instances number"), "inst", "1"));
    parser.addOption(QCommandLineOption(
        QStringList{"n"}, QCoreApplication::translate("main", "Instance position"), "ninst", "0"));
    parser.addOption(
        QCommandLineOption(QStringList{"print-config"},
                           QCoreApplication::translate(
                               "main", "Print every configuration key with its effective value and exit")));
    parser.addHelpOption();
    parser.addVersionOption();
}

bool process(QCommandLineParser& parser, const QCoreApplication& app) {
    set_application_identity();
    register_options(parser);
    parser.process(app);
    return true;
}

QString config_path(const QCommandLineParser& parser) {
    return parser.value("c");
}

bool print_config(const QCommandLineParser& parser) {
    return parser.isSet("print-config");
}

int instances(const QCommandLineParser& parser) {
    return decimal_value(parser, "i");
}

int position(const QCommandLineParser& parser) {
    return decimal_value(parser, "n");
}

QString instance_error(int instances, int position) {
    if (instances < 1) {
        return QString("instance count (-i) must be 1 or more, not %1").arg(instances);
    }
    if (position < 0 || position >= instances) {
        return QString("instance position (-n) must be 0 to %1, not %2").arg(instances - 1).arg(position);
    }
    return QString();
}

}  // namespace command_line
