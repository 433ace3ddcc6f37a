#pragma once

#include <QByteArray>
#include <QDateTime>
#include <QString>
#include <QVariant>
#include <functional>
#include <vector>

struct sqlite3;
struct sqlite3_stmt;

namespace sqlite_db {

// A statement prepared once on the connection's SQLite handle and stepped there, for the
// writes of the uplink path. Qt's driver wraps every value in a QVariant and binds text
// as UTF-16, which SQLite converts back to UTF-8; here text is bound as UTF-8 and numbers
// as they are. The values stored are the ones Qt's driver stores for the same fields:
// a null QString or QByteArray is NULL, an empty one '' or a zero-length blob.
//
// Parameters are numbered from 1, as SQLite numbers them. Every parameter is bound again
// before each run; bound text and blobs must stay unchanged until run() has returned.
class native_statement {
public:
    // Failures are reported through `fail(what, detail)`, which throws.
    using failure = std::function<void(const QString& what, const QString& detail)>;

    // Throws through `fail` ("cannot prepare") when SQLite refuses the text.
    native_statement(sqlite3* handle, const QByteArray& sql, failure fail);
    ~native_statement();
    native_statement(const native_statement&) = delete;
    native_statement& operator=(const native_statement&) = delete;

    void bind_null(int index);
    void bind_int(int index, qint64 value);
    void bind_double(int index, double value);
    // A null string binds NULL.
    void bind_text(int index, const QString& text);
    // UTF-8 text; a null array binds NULL. The bytes are not copied.
    void bind_utf8(int index, const QByteArray& text);
    // A null array binds NULL. The bytes are not copied.
    void bind_blob(int index, const QByteArray& bytes);
    // Milliseconds since the epoch; an invalid time binds NULL.
    void bind_time(int index, const QDateTime& time);
    // A value of any type, stored as Qt's driver stores it: integers and bools as
    // integers, doubles as reals, byte arrays as blobs, anything else as its text.
    void bind_variant(int index, const QVariant& value);

    // Steps the statement to its end and resets it; throws through `fail`
    // ("statement failed") with SQLite's message and the statement's text.
    void run();
    // As run(), but reports a failure as false with SQLite's message in `error`.
    bool try_run(QString* error);

    const QByteArray& sql() const { return m_sql; }

private:
    void check_bind(int result, int index);
    QString error_text(const char* what) const;

    sqlite3* m_handle = nullptr;
    sqlite3_stmt* m_statement = nullptr;
    QByteArray m_sql;
    failure m_fail;
    // UTF-8 copies of the bound QStrings, one buffer per parameter, reused.
    std::vector<QByteArray> m_text;
};

}  // namespace sqlite_db
