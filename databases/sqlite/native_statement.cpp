#include "databases/sqlite/native_statement.h"

#include <sqlite3.h>

namespace sqlite_db {

native_statement::native_statement(sqlite3* handle, const QByteArray& sql, failure fail)
    : m_handle(handle), m_sql(sql), m_fail(std::move(fail)) {
    const int result = sqlite3_prepare_v3(m_handle, m_sql.constData(), m_sql.size() + 1,
                                          SQLITE_PREPARE_PERSISTENT, &m_statement, nullptr);
    if (result != SQLITE_OK || !m_statement) {
        // The same words as Qt's driver gives for a statement it cannot prepare.
        const QString error = error_text("Unable to execute statement");
        sqlite3_finalize(m_statement);
        m_statement = nullptr;
        m_fail("cannot prepare", error);
    }
    m_text.resize(static_cast<size_t>(sqlite3_bind_parameter_count(m_statement)));
}

native_statement::~native_statement() {
    sqlite3_finalize(m_statement);
}

QString native_statement::error_text(const char* what) const {
    return QString::fromUtf8(sqlite3_errmsg(m_handle)) + ' ' + QLatin1String(what) +
           " in: " + QString::fromUtf8(m_sql);
}

void native_statement::check_bind(int result, int) {
    if (result == SQLITE_OK)
        return;
    const QString error = error_text("Unable to bind parameters");
    sqlite3_reset(m_statement);
    m_fail("statement failed", error);
}

void native_statement::bind_null(int index) {
    check_bind(sqlite3_bind_null(m_statement, index), index);
}

void native_statement::bind_int(int index, qint64 value) {
    check_bind(sqlite3_bind_int64(m_statement, index, value), index);
}

void native_statement::bind_double(int index, double value) {
    check_bind(sqlite3_bind_double(m_statement, index, value), index);
}

void native_statement::bind_text(int index, const QString& text) {
    if (text.isNull()) {
        bind_null(index);
        return;
    }
    if (index < 1 || size_t(index) > m_text.size()) {
        check_bind(SQLITE_RANGE, index);
        return;
    }
    // Most texts are ASCII: copied into this parameter's buffer, which keeps its memory
    // from run to run; others are converted by Qt.
    QByteArray& utf8 = m_text[size_t(index - 1)];
    const int size = text.size();
    utf8.resize(size);
    char* out = utf8.data();
    const QChar* in = text.constData();
    for (int i = 0; i < size; ++i) {
        const ushort code = in[i].unicode();
        if (code >= 0x80) {
            utf8 = text.toUtf8();
            break;
        }
        out[i] = char(code);
    }
    check_bind(sqlite3_bind_text(m_statement, index, utf8.constData(), utf8.size(), SQLITE_STATIC), index);
}

void native_statement::bind_utf8(int index, const QByteArray& text) {
    if (text.isNull()) {
        bind_null(index);
        return;
    }
    check_bind(sqlite3_bind_text(m_statement, index, text.constData(), text.size(), SQLITE_STATIC), index);
}

void native_statement::bind_blob(int index, const QByteArray& bytes) {
    if (bytes.isNull()) {
        bind_null(index);
        return;
    }
    check_bind(sqlite3_bind_blob(m_statement, index, bytes.constData(), bytes.size(), SQLITE_STATIC), index);
}

void native_statement::bind_time(int index, const QDateTime& time) {
    if (!time.isValid()) {
        bind_null(index);
        return;
    }
    bind_int(index, time.toMSecsSinceEpoch());
}

void native_statement::bind_variant(int index, const QVariant& value) {
    if (value.isNull()) {
        bind_null(index);
        return;
    }
    switch (value.userType()) {
        case QMetaType::QByteArray:
            bind_blob(index, *static_cast<const QByteArray*>(value.constData()));
            return;
        case QMetaType::Int:
        case QMetaType::Bool:
        case QMetaType::UInt:
        case QMetaType::LongLong:
            bind_int(index, value.toLongLong());
            return;
        case QMetaType::Double:
            bind_double(index, value.toDouble());
            return;
        case QMetaType::QString:
            bind_text(index, *static_cast<const QString*>(value.constData()));
            return;
        default:
            // Unsigned 64-bit numbers, floats and the rest: their text, as Qt's driver has it.
            bind_text(index, value.toString());
            return;
    }
}

void native_statement::run() {
    QString error;
    if (!try_run(&error))
        m_fail("statement failed", error);
}

bool native_statement::try_run(QString* error) {
    int result = SQLITE_ROW;
    while (result == SQLITE_ROW)
        result = sqlite3_step(m_statement);
    if (result == SQLITE_DONE) {
        sqlite3_reset(m_statement);
        return true;
    }
    // The wording of Qt's driver for a failed step, so that the log reads as before.
    if (error)
        *error = error_text("Unable to fetch row");
    sqlite3_reset(m_statement);
    return false;
}

}  // namespace sqlite_db
