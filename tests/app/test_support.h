#pragma once

#include <QCoreApplication>
#include <QFile>
#include <QString>
#include <QStringList>

namespace app_test {

// Loaders and the parser need an application object (application directory, arguments).
inline QCoreApplication& core_app() {
    static int argc = 1;
    static char name[] = "app_test";
    static char* argv[] = {name, nullptr};
    static QCoreApplication* app = QCoreApplication::instance() ? nullptr : new QCoreApplication(argc, argv);
    (void)app;
    return *QCoreApplication::instance();
}

inline void write_text(const QString& path, const QByteArray& text) {
    QFile file(path);
    if (file.open(QIODevice::WriteOnly | QIODevice::Truncate)) {
        file.write(text);
    }
}

inline QByteArray read_text(const QString& path) {
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

// Lines of a log file without their CRLF terminators.
inline QStringList log_lines(const QString& path) {
    QString text = QString::fromUtf8(read_text(path));
    QStringList lines = text.split("\r\n");
    if (!lines.isEmpty() && lines.last().isEmpty()) {
        lines.removeLast();
    }
    return lines;
}

}  // namespace app_test
