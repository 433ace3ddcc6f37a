#pragma once

#include <QByteArray>
#include <QString>
#include <QStringList>
#include <functional>
#include <memory>

#include "app/config.h"
#include "app/logger.h"

namespace amqp_test {

// The private test broker (scripts/test-broker) and helpers around it.
QString broker_url();
QString dead_url();                     // nothing listens there
const QString& exchange();              // the topic exchange the broker script creates
QString unique(const QString& prefix);  // a name no other test or run uses

// Runs the broker script with the given arguments; true when it exits with status 0.
bool broker_script(const QStringList& args, int timeout_ms = 60000);
// Publishes one persistent message with the amqp-tools client (independent of the code
// under test).
bool publish_persistent(const QString& exchange, const QString& key, const QByteArray& body);
qint64 broker_pid();

// Spins the event loop until the predicate holds or the deadline passes.
bool wait_for(const std::function<bool()>& predicate, int timeout_ms = 15000);
void spin(int ms);

// A debug-level log in a temporary file, readable by the test.
class test_log {
public:
    test_log();
    ~test_log();
    logger& get() { return *m_logger; }
    QString text() const;
    int count(const QString& needle) const;
    // Position of the first line containing needle at or after from; -1 if none.
    int index_of(const QString& needle, int from = 0) const;

private:
    QString m_path;
    std::unique_ptr<logger> m_logger;
};

// A receiver configuration on the test broker with a self-expiring queue.
rabbit_receiver_cfg receiver_cfg(const QString& queue, const QStringList& keys, int prefetch = 10);
rabbit_publisher_config publisher_cfg(const QString& exchange_name = exchange());

}  // namespace amqp_test
