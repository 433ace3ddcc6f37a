#pragma once

#include <QDebug>
#include <QFileInfo>
#include <QFileInfoList>
#include <QJsonObject>
#include <QList>
#include <QObject>
#include <QString>
#include <functional>

// The steps every scan of the plugin directory shares.
namespace plugin_scan {

// A plugin whose root object has the interface a scan wants.
template <class Factory>
struct found_plugin {
    Factory* factory = nullptr;
    QJsonObject configuration;
    QString path;
};

// Files of the directory, by name ignoring case, without symbolic links and with
// names beginning with "plug_".
QFileInfoList plugin_files(const QString& directory);

// The root object of a plugin file; null when it is not a loadable plugin.
QObject* root_instance(const QFileInfo& file);

// The configuration file of a plugin: config_path itself when it contains ".json",
// otherwise <base name up to the first dot>.json in the directory config_path.
QString configuration_file(const QString& config_path, const QFileInfo& plugin);

// The top-level object of a JSON file; empty when it is missing, unreadable or not an
// object.
QJsonObject read_configuration(const QString& file);

// Loads the plugin files that pass `wanted` (all when it is empty) and keeps those whose
// root object has the interface Factory, in directory order, each with its configuration.
template <class Factory>
QList<found_plugin<Factory>> scan(const QString& directory, const QString& config_path,
                                  const std::function<bool(const QFileInfo&)>& wanted = {}) {
    QList<found_plugin<Factory>> found;
    for (const QFileInfo& file : plugin_files(directory)) {
        if (wanted && !wanted(file)) {
            continue;
        }
        Factory* factory = qobject_cast<Factory*>(root_instance(file));
        qDebug() << file.fileName() << static_cast<void*>(factory);
        if (!factory) {
            continue;
        }
        found.append(
            {factory, read_configuration(configuration_file(config_path, file)), file.absoluteFilePath()});
    }
    return found;
}

}  // namespace plugin_scan
