#pragma once

#include <QJsonObject>
#include <QString>
#include <vector>

#include "amqp/broker_link.h"
#include "bench/faults/ledger.h"

namespace faults {

// Plays the network server: publishes uplinks persistent and waits for the broker's
// confirms, so that an uplink counts as sent only once the broker holds it. What the
// broker did not confirm (it went down, or could not route it) is published again; such
// an uplink may then reach the queue twice.
class confirmed_sender {
public:
    confirmed_sender(amqp::broker_link& link, const QString& exchange, ledger& book);

    // Returns false when the broker did not take the batch within `timeout_ms`.
    bool send(const std::vector<QJsonObject>& uplinks, const std::vector<QString>& routing_keys,
              int timeout_ms = 600000);
    int batches_sent_again() const { return m_batches_sent_again; }
    const QString& error() const { return m_error; }

private:
    amqp::broker_link& m_link;
    QString m_exchange;
    ledger& m_book;
    int m_batches_sent_again = 0;
    QString m_error;
};

}  // namespace faults
