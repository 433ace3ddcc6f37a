#include "tools/cli/tool_support.h"

#include <QFileInfo>
#include <QTextStream>

namespace tool {

namespace {
bool show_debug_output = false;

void filter_messages(QtMsgType type, const QMessageLogContext&, const QString& text) {
    if (!show_debug_output && (type == QtDebugMsg || type == QtInfoMsg || type == QtWarningMsg)) {
        return;
    }
    QTextStream(stderr) << text << '\n';
}
}  // namespace

std::unique_ptr<QSettings> open_configuration(const QString& path, bool explicitly_given) {
    const QFileInfo file(path);
    if (explicitly_given && !file.isFile()) {
        throw usage_error(QString("configuration file %1 not found").arg(path).toStdString());
    }
    return std::make_unique<QSettings>(path, QSettings::IniFormat);
}

std::unique_ptr<logger> endpoint_logger(bool verbose, const QString& name) {
    return verbose ? std::make_unique<logger>("/dev/stderr", Debug, name)
                   : std::make_unique<logger>("/dev/null", Error, name);
}

void install_message_filter(bool verbose) {
    show_debug_output = verbose;
    qInstallMessageHandler(filter_messages);
}

int positive_integer(const QString& text, const QString& option) {
    bool ok = false;
    const int seconds = text.toInt(&ok);
    if (!ok || seconds <= 0) {
        throw usage_error(
            QString("--%1 needs a whole number above 0, not '%2'").arg(option, text).toStdString());
    }
    return seconds;
}

}  // namespace tool
