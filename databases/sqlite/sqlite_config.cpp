#include "databases/sqlite/sqlite_config.h"

#include <QDebug>
#include <QFileInfo>
#include <QJsonValue>
#include <stdexcept>

namespace sqlite_db {
namespace {

int positive_int(const QJsonObject& o, const char* key, int fallback) {
    const QJsonValue v = o.value(key);
    if (v.isUndefined())
        return fallback;
    if (!v.isDouble() || v.toInt(-1) < 0) {
        qWarning() << "SQLite store: configuration key" << key << "is not a non-negative number; using"
                   << fallback;
        return fallback;
    }
    return v.toInt();
}

}  // namespace

sqlite_config sqlite_config::from_json(const QJsonObject& o) {
    sqlite_config c;
    const QJsonValue path = o.value("path");
    if (path.isString() && !path.toString().isEmpty())
        c.path = path.toString();
    else if (!path.isUndefined())
        qWarning() << "SQLite store: \"path\" is not a file name; using" << c.path;
    c.path = QFileInfo(c.path).absoluteFilePath();

    const QString synchronous = o.value("synchronous").toString("FULL").toUpper();
    if (synchronous != "NORMAL" && synchronous != "FULL")
        throw std::runtime_error(QString("SQLite store %1: \"synchronous\" must be \"NORMAL\" or \"FULL\"")
                                     .arg(c.path)
                                     .toStdString());
    c.synchronous_full = synchronous == "FULL";
    c.purge_interval_s = positive_int(o, "purge_interval", c.purge_interval_s);
    c.purge_batch = positive_int(o, "purge_batch", c.purge_batch);
    c.busy_timeout_ms = positive_int(o, "busy_timeout", c.busy_timeout_ms);
    c.checkpoint_pages = positive_int(o, "checkpoint_pages", c.checkpoint_pages);
    c.max_page_count = positive_int(o, "max_page_count", c.max_page_count);
    c.devices = o.value("devices").toObject();
    return c;
}

}  // namespace sqlite_db
