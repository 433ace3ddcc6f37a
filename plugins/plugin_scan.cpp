#include "plugins/plugin_scan.h"

#include <QDir>
#include <QFile>
#include <QJsonDocument>
#include <QPluginLoader>

namespace plugin_scan {

QFileInfoList plugin_files(const QString& directory) {
    QFileInfoList files;
    const QFileInfoList entries = QDir(directory).entryInfoList(QDir::Files, QDir::Name | QDir::IgnoreCase);
    for (const QFileInfo& entry : entries) {
        if (entry.isSymLink()) {
            continue;
        }
        if (!entry.fileName().startsWith("plug_", Qt::CaseSensitive)) {
            continue;
        }
        files.append(entry);
    }
    return files;
}

QObject* root_instance(const QFileInfo& file) {
    qDebug() << "loading plugin:" << file.absoluteFilePath();
    // The loader is not unloaded: the library stays loaded for the life of the process
    // and keeps its root object alive.
    QPluginLoader loader(file.absoluteFilePath());
    return loader.instance();
}

QString configuration_file(const QString& config_path, const QFileInfo& plugin) {
    if (config_path.contains(".json")) {
        return config_path;
    }
    return QDir(config_path).filePath(plugin.baseName() + ".json");
}

QJsonObject read_configuration(const QString& file) {
    qDebug() << "loading plugin config:" << QFileInfo(file).absoluteFilePath();
    QFile config(file);
    if (!config.open(QIODevice::ReadOnly)) {
        return {};
    }
    return QJsonDocument::fromJson(config.readAll()).object();
}

}  // namespace plugin_scan
