#pragma once

#include <QJsonDocument>
#include <QSqlDatabase>
#include <QSqlQuery>
#include <QTest>

#include "engine_fixture.h"

// The engine over the real SQLite store plugin, and a view of the file from another
// connection: what it sees is what was committed.
class EngineBatch : public EngineFixture {
protected:
    void SetUp() override {
        EngineFixture::SetUp();
        m_path = m_dir.filePath("engine.db");
        QFile config(m_dir.filePath("plug_db_driver_sqlite.json"));
        ASSERT_TRUE(config.open(QIODevice::WriteOnly));
        config.write(QJsonDocument(QJsonObject{{"path", m_path}, {"purge_interval", 0}}).toJson());
        config.close();
        PMConfig pm;
        pm.db_name = "db_driver_sqlite";
        pm.plugin_path = QUILLON_BIN_DIR;
        pm.plugin_config_path = m_dir.path();
        pm.plugin_db_config_path = m_dir.path();
        m_plugins = std::make_unique<PluginsManager>(pm, *m_log);
        model::dev_value value;
        value.obis_code = "1.8.0";
        value.tag = "t";
        value.value = 2.5;
        value.timestamp = QDateTime::fromSecsSinceEpoch(1700000000, Qt::UTC);
        value.ttl = QDateTime::currentDateTimeUtc().addDays(1);
        m_driver->m_records = {value};
    }

    // What another connection to the file sees: only committed rows.
    QString committed(const QString& sql) {
        const QString name = "engine_batch_probe";
        QString result;
        {
            QSqlDatabase db = QSqlDatabase::addDatabase("QSQLITE", name);
            db.setDatabaseName(m_path);
            EXPECT_TRUE(db.open());
            QSqlQuery q(db);
            if (q.exec(sql) && q.next()) {
                result = q.value(0).toString();
            }
        }
        QSqlDatabase::removeDatabase(name);
        return result;
    }

    // Whether another connection gets the file's write lock within wait_ms.
    bool write_lock_free(int wait_ms) {
        const QString name = "engine_batch_writer";
        bool taken = false;
        {
            QSqlDatabase db = QSqlDatabase::addDatabase("QSQLITE", name);
            db.setDatabaseName(m_path);
            EXPECT_TRUE(db.open());
            QSqlQuery q(db);
            q.exec(QString("PRAGMA busy_timeout=%1").arg(wait_ms));
            taken = q.exec("BEGIN IMMEDIATE");
            q.exec("ROLLBACK");
        }
        QSqlDatabase::removeDatabase(name);
        return taken;
    }

    // The store syncs on a thread of its own: waits until what every commit let out has
    // gone out.
    void all_durable() {
        ASSERT_TRUE(QTest::qWaitFor([&] { return m_engine->outputs_waiting() == 0; }, 10000));
    }

    QString m_path;
};
