#pragma once

// Helpers of the SQLite store tests: the plugin loaded from the build directory, the
// four database objects on a temporary file, and a raw connection of the test's own.

#include <gtest/gtest.h>
#include <QDateTime>
#include <QJsonObject>
#include <QPluginLoader>
#include <QSqlDatabase>
#include <QSqlError>
#include <QSqlQuery>
#include <QString>
#include <QTemporaryDir>
#include <QUuid>
#include <memory>

#include "interfaces/factories.h"

namespace sqlite_test {

inline constexpr qint64 T0 = 1700000000;  // a fixed base time, seconds

inline QDateTime at(qint64 seconds) {
    return QDateTime::fromSecsSinceEpoch(seconds, Qt::UTC);
}

// A ttl that does not pass during the test, and one that has passed.
inline QDateTime live_ttl() {
    return QDateTime::currentDateTimeUtc().addDays(1);
}
inline QDateTime past_ttl() {
    return QDateTime::currentDateTimeUtc().addSecs(-60);
}

inline interfaces::IDatabaseFactory* sqlite_factory() {
    static QPluginLoader loader(QUILLON_BIN_DIR "/plug_db_driver_sqlite.so");
    auto* factory = qobject_cast<interfaces::IDatabaseFactory*>(loader.instance());
    if (!factory)
        ADD_FAILURE() << "cannot load the SQLite plugin: " << loader.errorString().toStdString();
    return factory;
}

struct stores {
    std::shared_ptr<interfaces::IMessagesDatabase> messages;
    std::shared_ptr<interfaces::IEAVDatabase> eav;
    std::shared_ptr<interfaces::IDriverState> state;
    std::shared_ptr<interfaces::IDeviceClientsDatabase> clients;
};

inline QJsonObject config_for(const QString& path) {
    return QJsonObject{{"path", path}, {"purge_interval", 0}};
}

inline stores open_stores(const QJsonObject& config) {
    interfaces::IDatabaseFactory* f = sqlite_factory();
    return {f->create_messages(config, nullptr), f->create_eav(config, nullptr),
            f->create_state(config, nullptr), f->create_clients(config, nullptr)};
}

// Connections the plugin has open (Qt's connection registry is one per process).
inline int plugin_connections() {
    int n = 0;
    for (const QString& name : QSqlDatabase::connectionNames())
        n += name.startsWith("quillon_sqlite_");
    return n;
}

// A connection of the test's own to the same file, closed on destruction.
class raw_connection {
public:
    explicit raw_connection(const QString& path) : m_name("test_raw_" + QUuid::createUuid().toString()) {
        QSqlDatabase db = QSqlDatabase::addDatabase("QSQLITE", m_name);
        db.setDatabaseName(path);
        db.setConnectOptions("QSQLITE_BUSY_TIMEOUT=0");
        EXPECT_TRUE(db.open()) << db.lastError().text().toStdString();
    }
    ~raw_connection() {
        QSqlDatabase::database(m_name).close();
        QSqlDatabase::removeDatabase(m_name);
    }
    raw_connection(const raw_connection&) = delete;
    raw_connection& operator=(const raw_connection&) = delete;

    QSqlDatabase db() const { return QSqlDatabase::database(m_name); }

    bool exec(const QString& sql) {
        QSqlQuery q(db());
        const bool ok = q.exec(sql);
        EXPECT_TRUE(ok) << sql.toStdString() << ": " << q.lastError().text().toStdString();
        return ok;
    }

    // The first column of the first row of a query without parameters.
    QVariant scalar(const QString& sql) {
        QSqlQuery q(db());
        if (!q.exec(sql) || !q.next()) {
            ADD_FAILURE() << sql.toStdString() << ": " << q.lastError().text().toStdString();
            return {};
        }
        return q.value(0);
    }

private:
    QString m_name;
};

}  // namespace sqlite_test
