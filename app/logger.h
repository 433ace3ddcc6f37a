#pragma once

#include <QByteArray>
#include <QFile>
#include <QMutex>
#include <QSettings>
#include <QString>
#include <cstdint>

enum log_level : int { Off = 0, Error = 1, Warning = 2, Info = 3, Debug = 4 };

// The service's one log file. Lines are written whole under a mutex and flushed at once.
class logger {
public:
    logger(QSettings& settings, const QString& log_name);
    logger(const QString& path, int level, const QString& log_name);
    ~logger();
    Q_DISABLE_COPY(logger)

    int level() const { return m_level; }
    const QString& log_name() const { return m_log_name; }
    const QString& path() const { return m_path; }
    void write(int level, const QString& text);

    static const char* level_name(int level);
    static int level_from_word(const QString& word);  // unknown words give Off

private:
    QMutex m_mutex;
    QFile m_file;
    int m_level = Error;
    QString m_path;
    QString m_log_name;
};

// A line being built; written when it goes out of scope if its level passes.
class log_line {
public:
    log_line(logger& log, int level);
    ~log_line();
    log_line(const log_line&) = delete;
    log_line& operator=(const log_line&) = delete;

    log_line& operator<<(const char* text);
    log_line& operator<<(const QString& text);
    log_line& operator<<(const QByteArray& text);
    log_line& operator<<(uint64_t number);

private:
    QString m_text;
    logger* m_logger = nullptr;
    int m_level = Error;
};

// URL with its password replaced by "****", for log lines.
QString mask_url_password(const QString& url);
