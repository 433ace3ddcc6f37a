#pragma once

#include <QJsonObject>
#include <QString>

// An application's metadata file "metadata_<app>_<protocol>_<instance>.json" in the
// plugin-configuration directory.
class metadata_file {
public:
    metadata_file(const QString& directory, const QString& app_id, const QString& protocol,
                  const QString& instance);

    QString file_name() const;
    // Loads the file narrowed by key into metadata. When the directory has no entry of
    // exactly this name, metadata is left as it was. Never throws: an unreadable or
    // malformed file gives an empty object.
    void load(QJsonObject& metadata, const QString& key) const;

    // The object under key, else the object under "*", else the whole object.
    static QJsonObject narrow(const QJsonObject& metadata, const QString& key);

private:
    bool listed() const;
    QJsonObject read() const;

    QString m_directory;
    QString m_file_name;
};
