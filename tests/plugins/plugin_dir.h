#pragma once

#include <QByteArray>
#include <QString>
#include <QStringList>
#include <QTemporaryDir>
#include <memory>

#include "app/logger.h"
#include "plugins/PluginsManager.h"

// A temporary plugin directory filled with copies of real plugin files.
class plugin_dir {
public:
    plugin_dir();

    QString path() const { return m_dir.path(); }
    QString file(const QString& name) const { return m_dir.filePath(name); }

    // A copy of the test driver plugin, or of the in-memory database plugin, under `name`.
    void add_driver(const QString& name, const QByteArray& json = {});
    void add_database(const QString& name, const QByteArray& json = {});
    // Writes a text file; a name with a slash creates the folder first.
    void write(const QString& name, const QByteArray& text);

    // A configuration whose three paths all point at this directory.
    PMConfig config() const;

    logger& log() { return *m_log; }
    QString log_text() const;

private:
    void copy(const QString& from, const QString& name);

    QTemporaryDir m_dir;
    std::unique_ptr<logger> m_log;
};

// Collects Qt's debug output while it lives.
class debug_capture {
public:
    debug_capture();
    ~debug_capture();
    QStringList lines() const;
    bool any_contains(const QString& text) const;
};

// The configured driver's report (see the test driver plugin).
QJsonObject driver_report(PluginsManager& manager, int ttl = 0, int position = 0);
