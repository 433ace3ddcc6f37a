#include "commands/metadata_file.h"

#include <QDir>
#include <QFile>
#include <QJsonDocument>

metadata_file::metadata_file(const QString& directory, const QString& app_id, const QString& protocol,
                             const QString& instance)
    : m_directory(directory),
      m_file_name(QString("metadata_%1_%2_%3.json").arg(app_id, protocol, instance)) {}

QString metadata_file::file_name() const {
    return m_file_name;
}

void metadata_file::load(QJsonObject& metadata, const QString& key) const {
    if (!listed()) {
        return;
    }
    metadata = narrow(read(), key);
}

QJsonObject metadata_file::narrow(const QJsonObject& metadata, const QString& key) {
    if (metadata.contains(key)) {
        return metadata.value(key).toObject();
    }
    if (metadata.contains("*")) {
        return metadata.value("*").toObject();
    }
    return metadata;
}

// The exact, case-sensitive name must be one of the directory's entries; a path
// built from request text is never opened otherwise.
bool metadata_file::listed() const {
    return QDir(m_directory).entryList().contains(m_file_name, Qt::CaseSensitive);
}

QJsonObject metadata_file::read() const {
    QFile file(QDir(m_directory).filePath(m_file_name));
    if (!file.open(QIODevice::ReadOnly)) {
        return QJsonObject();
    }
    return QJsonDocument::fromJson(file.readAll()).object();
}
