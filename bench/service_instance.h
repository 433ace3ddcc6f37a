#pragma once

#include <sys/types.h>
#include <QJsonObject>
#include <QList>
#include <QMap>
#include <QProcess>
#include <QString>
#include <QTemporaryDir>

#include "app/config.h"

namespace bench {

// The quillon service as a process of its own: an INI file and the SQLite store's
// configuration in a temporary directory, every queue and routing key unique to the run
// (so that other consumers of a shared broker neither feed nor starve it), the reference
// M-Bus driver, publication to clients on.
class service_instance {
public:
    // `store_path` empty: a fresh store file in the working directory.
    service_instance(const QString& broker_url, const QString& store_path = QString());
    ~service_instance();
    service_instance(const service_instance&) = delete;
    service_instance& operator=(const service_instance&) = delete;

    // Registers a modem with its protocol, hardware type and client list (the store's
    // "devices" seed).
    void register_modem(int modem, const QString& protocol, const QString& hw_type,
                        const QStringList& clients);
    void set(const QString& group, const QString& key, const QString& value);
    // Keys added to the store's configuration (the path and the devices stay the bench's).
    void set_store_config(const QJsonObject& extra) { m_store_extra = extra; }
    // The PostgreSQL store instead of SQLite: its connection and schema.
    void use_postgres(const QString& conninfo, const QString& schema);
    // -i and -n of the command line (default 1 and 0).
    void set_instance(int count, int position) {
        m_instances = count;
        m_position = position;
    }

    // Written on start(); readable before it.
    QString uplink_route_key() const { return m_route_key; }
    // The uplink queue and its bindings exactly as the service derives them.
    rabbit_receiver_cfg uplink_queue();
    QString command_queue() const { return m_command_queue; }
    QString command_key() const { return m_command_key; }

    bool start();
    // SIGTERM, then waits; returns the exit code (-1 when it did not end in time).
    int stop();
    // SIGKILL, then waits: the process gets no chance to finish anything.
    void kill_now();
    // The process's standard error goes to this file instead of the caller's (before start()).
    void set_error_file(const QString& path) { m_process.setStandardErrorFile(path, QIODevice::Append); }
    // Leaves the working directory (log, configuration, default store) in place.
    void keep_files() { m_dir.setAutoRemove(false); }
    bool running() const { return m_process.state() == QProcess::Running; }
    pid_t pid() const { return pid_t(m_process.processId()); }
    QString log_tail(int chars = 2000) const;
    QString working_dir() const { return m_dir.path(); }

private:
    void write_files();

    QTemporaryDir m_dir;
    QProcess m_process;
    QMap<QString, QMap<QString, QString>> m_ini;
    QJsonObject m_devices;
    QJsonObject m_store_extra;
    QString m_store_path;
    QString m_route_key;
    QString m_command_queue;
    QString m_command_key;
    QString m_pg_conninfo;  // empty: SQLite
    QString m_pg_schema;
    int m_instances = 1;
    int m_position = 0;
};

}  // namespace bench
