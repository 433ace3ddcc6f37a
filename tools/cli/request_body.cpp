#include "tools/cli/request_body.h"

#include <QDateTime>
#include <QJsonDocument>
#include <QJsonParseError>
#include <QRegularExpression>

#include "tools/cli/tool_support.h"

namespace cli {

namespace {

[[noreturn]] void fail(const QString& text) {
    throw tool::usage_error(text.toStdString());
}

QStringList split_values(const QStringList& values) {
    QStringList parts;
    for (const QString& value : values) {
        for (const QString& part : value.split(',', Qt::SkipEmptyParts)) {
            parts << part.trimmed();
        }
    }
    return parts;
}

}  // namespace

qint64 parse_time(const QString& text, const QString& option) {
    static const QRegularExpression whole_number("^-?\\d+$");
    static const QRegularExpression date_only("^\\d{4}-\\d{2}-\\d{2}$");
    static const QRegularExpression zone("(Z|[+-]\\d{2}(:?\\d{2})?)$");
    const QString trimmed = text.trimmed();
    if (whole_number.match(trimmed).hasMatch()) {
        bool ok = false;
        const qint64 seconds = trimmed.toLongLong(&ok);
        if (ok) {
            return seconds;
        }
    }
    QString iso = trimmed;
    if (date_only.match(iso).hasMatch()) {
        iso += "T00:00:00";
    }
    iso.replace(' ', 'T');
    QDateTime time = QDateTime::fromString(iso, Qt::ISODate);
    if (!time.isValid()) {
        fail(QString("--%1: '%2' is neither seconds since 1970 nor an ISO date such as 2026-01-01 or "
                     "2026-01-01T10:00:00")
                 .arg(option, text));
    }
    const int time_part = iso.indexOf('T');
    if (!zone.match(iso.mid(time_part)).hasMatch()) {
        time.setTimeSpec(Qt::UTC);
    }
    return time.toSecsSinceEpoch();
}

QJsonArray parse_modems(const QStringList& values) {
    QJsonArray modems;
    for (const QString& part : split_values(values)) {
        bool ok = false;
        const int id = part.toInt(&ok);
        if (!ok || id < 0) {
            fail(QString("--modem: '%1' is not a modem id (a whole number from 0)").arg(part));
        }
        modems.append(id);
    }
    return modems;
}

QJsonArray parse_texts(const QStringList& values) {
    return QJsonArray::fromStringList(split_values(values));
}

qint64 parse_integer(const QString& text, const QString& option) {
    bool ok = false;
    const qint64 number = text.trimmed().toLongLong(&ok);
    if (!ok) {
        fail(QString("--%1: '%2' is not a whole number").arg(option, text));
    }
    return number;
}

QJsonObject parse_assignment(const QString& text) {
    const int equals = text.indexOf('=');
    if (equals <= 0) {
        fail(QString("--set: '%1' is not of the form key=value").arg(text));
    }
    const QString key = text.left(equals);
    const QString value = text.mid(equals + 1);
    // Qt reads only objects and arrays at the top, so the value is read as an array's item.
    QJsonParseError error{};
    const QJsonDocument wrapped = QJsonDocument::fromJson("[" + value.toUtf8() + "]", &error);
    if (error.error == QJsonParseError::NoError && wrapped.array().size() == 1) {
        return QJsonObject{{key, wrapped.array().first()}};
    }
    return QJsonObject{{key, value}};
}

QJsonObject parse_body(const QByteArray& text, const QString& source) {
    QJsonParseError error{};
    const QJsonDocument document = QJsonDocument::fromJson(text, &error);
    if (error.error != QJsonParseError::NoError) {
        fail(QString("the body from %1 is not valid JSON: %2 at offset %3")
                 .arg(source, error.errorString())
                 .arg(error.offset));
    }
    if (!document.isObject()) {
        fail(QString("the body from %1 must be a JSON object ({...})").arg(source));
    }
    return document.object();
}

}  // namespace cli
