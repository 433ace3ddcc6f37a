#include "app/logger.h"

#include <QDateTime>
#include <QMutexLocker>
#include <QTextStream>
#include <QThread>

#include "app/config_keys.h"

namespace {
struct level_word {
    const char* word;
    int level;
};
constexpr level_word level_words[] = {
    {"OFF", Off}, {"ERROR", Error}, {"WARNING", Warning}, {"INFORM", Info}, {"DEBUG", Debug}};
}  // namespace

logger::logger(QSettings& settings, const QString& log_name) : m_log_name(log_name) {
    settings.beginGroup("GENERAL_SETTINGS");
    m_path = key_text(settings, "LOG_FILE_PATH");
    m_file.setFileName(m_path);
    // The open is not checked: a log that cannot be opened loses its lines silently.
    m_file.open(QIODevice::WriteOnly | QIODevice::Append);
    QMutexLocker lock(&m_mutex);
    // Exact, case-sensitive: a misspelt level silences the log (the start-up check says so
    // on standard error). Absent, the key reads as ERROR.
    m_level = level_from_word(key_text(settings, "LOG_LEVEL"));
    settings.endGroup();
}

logger::logger(const QString& path, int level, const QString& log_name)
    : m_level(level), m_path(path), m_log_name(log_name) {
    m_file.setFileName(m_path);
    m_file.open(QIODevice::WriteOnly | QIODevice::Append);
}

logger::~logger() {
    m_file.close();
}

const char* logger::level_name(int level) {
    switch (level) {
        case Off:
            return "Off";
        case Error:
            return "Error";
        case Warning:
            return "Warning";
        case Info:
            return "Info";
        case Debug:
            return "Debug";
    }
    return "";
}

int logger::level_from_word(const QString& word) {
    for (const auto& w : level_words) {
        if (word == QLatin1String(w.word)) {
            return w.level;
        }
    }
    return Off;
}

void logger::write(int level, const QString& text) {
    QMutexLocker lock(&m_mutex);
    if (!m_file.isOpen()) {
        return;  // the file could not be opened at start: lines are lost by design
    }
    QTextStream out(&m_file);
    out.setCodec("UTF-8");
    const QString stamp = QDateTime::currentDateTime().toString("yyyy-MM-dd hh:mm:ss,zzz");
    if (level == Info) {
        out << stamp << " " << text << "\r\n";
    } else {
        const auto thread_id = reinterpret_cast<quintptr>(QThread::currentThreadId());
        out << stamp << "0x" << QString::number(thread_id, 16) << " " << level_name(level) << " " << text
            << "\r\n";
    }
    out.flush();
}

log_line::log_line(logger& log, int level) : m_logger(&log), m_level(level) {
    m_text = log.log_name() + ": ";
}

log_line::~log_line() {
    if (m_level <= m_logger->level()) {
        m_logger->write(m_level, m_text);
    }
}

log_line& log_line::operator<<(const char* text) {
    m_text += QString::fromUtf8(text);
    return *this;
}

log_line& log_line::operator<<(const QString& text) {
    m_text += text;
    return *this;
}

log_line& log_line::operator<<(const QByteArray& text) {
    m_text += QString::fromUtf8(text);
    return *this;
}

log_line& log_line::operator<<(uint64_t number) {
    m_text += QString::number(number);
    return *this;
}

QString mask_url_password(const QString& url) {
    // Found by position, not by a URL parser: a URL that does not parse must not show its
    // password either.
    const int scheme_end = url.indexOf("://");
    const int start = scheme_end < 0 ? 0 : scheme_end + 3;
    int authority_end = url.indexOf('/', start);
    if (authority_end < 0) {
        authority_end = url.size();
    }
    int at = url.lastIndexOf('@', authority_end - 1);
    if (at < start) {
        at = url.lastIndexOf('@');  // a raw "/" in the password
    }
    if (at < start) {
        return url;
    }
    const int colon = url.indexOf(':', start);
    if (colon < 0 || colon > at) {
        return url;
    }
    return url.left(colon + 1) + "****" + url.mid(at);
}
