#pragma once

#include <QByteArray>
#include <QJsonObject>
#include <QMap>
#include <QProcess>
#include <QString>
#include <QStringList>
#include <QTemporaryDir>
#include <functional>
#include <memory>
#include <vector>

#include "amqp/rabbit_publisher.h"
#include "amqp/rabbit_receiver.h"
#include "app/logger.h"

// Helpers for tests that run the real service against the private test broker.
namespace e2e {

// The private broker's URL (QUILLON_TEST_AMQP_URL, or the test-broker default).
QString broker_url();
// A name no other test uses, for queues and routing keys.
QString unique_name(const QString& prefix);
// Runs the event loop until `done` holds or the time is up; returns `done()`. The time is
// multiplied by QUILLON_TEST_TIME_FACTOR when set (the sanitizer run sets it: the service
// runs several times slower there).
bool wait_until(const std::function<bool()>& done, int timeout_ms = 15000);

// The quillon process with an INI file of its own in a temporary directory. Every
// AMQP group points at the private broker; queues get unique names.
class service_process {
public:
    service_process();
    ~service_process();

    // INI values, set before start().
    void set(const QString& group, const QString& key, const QString& value);
    // The database plugin's JSON configuration (written as plug_<db>.json in the
    // working directory, which is PLUGIN_DB_CONFIG_PATH).
    void set_database(const QString& db_name, const QJsonObject& configuration);
    QString working_dir() const { return m_dir.path(); }
    QString command_queue() const { return m_command_queue; }
    // The key the service answers commands on ("cmd.in.<unique>").
    QString command_key() const { return m_command_key; }

    // Starts and waits until both of the service's queues are bound.
    bool start(int instances = 1, int position = 0);
    // Starts without waiting for the broker (a service the broker refuses never binds).
    bool launch(int instances = 1, int position = 0);
    // SIGTERM and wait; returns the exit code (-1 when it did not end).
    int stop();
    bool wait_for_exit(int timeout_ms = 15000);
    // SIGKILL: no orderly stop, nothing flushed by the service itself.
    void kill_hard();
    int exit_code() const { return m_process.exitCode(); }
    bool running() const { return m_process.state() == QProcess::Running; }
    QString log() const;
    QByteArray standard_error();

private:
    void write_ini();

    QTemporaryDir m_dir;
    QProcess m_process;
    QMap<QString, QMap<QString, QString>> m_ini;
    QString m_command_queue;
    QString m_command_key;
};

struct received {
    QString routing_key;
    QByteArray payload;
    QJsonObject json() const;
};

// An exclusive, auto-deleted queue on norvik.api bound to the given keys, collecting
// what arrives (acknowledged at once).
class probe {
public:
    explicit probe(const QStringList& keys);
    ~probe();
    bool wait_ready(int timeout_ms = 15000);
    bool wait_for(size_t count, int timeout_ms = 15000);
    const std::vector<received>& messages() const { return m_messages; }
    void clear() { m_messages.clear(); }

private:
    QTemporaryDir m_dir;
    std::unique_ptr<logger> m_log;  // its "Queue bound" line tells when consumption starts
    std::unique_ptr<rabbit_receiver> m_receiver;
    std::vector<received> m_messages;
};

// Publishes JSON to norvik.api on the private broker, as the URL's user (the default
// broker URL when empty); with `stamp_user` every message carries that user as user_id.
class sender {
public:
    explicit sender(logger& log, const QString& url = QString(), bool stamp_user = false);
    ~sender();
    bool wait_ready(int timeout_ms = 15000);
    void publish(const QString& routing_key, const QJsonObject& message);
    void publish_raw(const QString& routing_key, const QByteArray& body);

private:
    std::unique_ptr<rabbit_publisher_impl> m_publisher;
};

// A command envelope as a client sends it.
QJsonObject command(const QString& type, const QJsonObject& data, const QString& sender_key);

}  // namespace e2e
