#include "bench/faults/confirmed_sender.h"

#include <QElapsedTimer>
#include <QJsonDocument>
#include <QThread>

namespace faults {

confirmed_sender::confirmed_sender(amqp::broker_link& link, const QString& exchange, ledger& book)
    : m_link(link), m_exchange(exchange), m_book(book) {}

bool confirmed_sender::send(const std::vector<QJsonObject>& uplinks, const std::vector<QString>& routing_keys,
                            int timeout_ms) {
    std::vector<amqp::broker_link::outgoing> batch;
    std::vector<uplink_key> keys;
    for (size_t i = 0; i < uplinks.size(); ++i) {
        const QByteArray body = QJsonDocument(uplinks[i]).toJson(QJsonDocument::Compact);
        batch.push_back({routing_keys[i].toLatin1(), body});
        keys.push_back(
            make_key(uplinks[i].value("modem_id").toInt(), int64_t(uplinks[i].value("iterator").toDouble())));
    }
    QElapsedTimer clock;
    clock.start();
    bool again = false;
    while (!batch.empty()) {
        std::vector<size_t> unconfirmed;
        const bool answered = m_link.publish_confirmed(m_exchange, batch, unconfirmed);
        std::vector<bool> missing(batch.size(), false);
        for (const size_t index : unconfirmed) {
            missing[index] = true;
        }
        std::vector<amqp::broker_link::outgoing> rest;
        std::vector<uplink_key> rest_keys;
        for (size_t i = 0; i < batch.size(); ++i) {
            if (!missing[i]) {
                m_book.sent.insert(keys[i]);
                continue;
            }
            rest.push_back(batch[i]);
            rest_keys.push_back(keys[i]);
            m_book.sent_again.insert(keys[i]);
        }
        batch.swap(rest);
        keys.swap(rest_keys);
        if (batch.empty()) {
            break;
        }
        if (!again) {
            again = true;
            ++m_batches_sent_again;
        }
        if (clock.elapsed() > timeout_ms) {
            m_error = QString("the broker did not take %1 uplinks: %2").arg(batch.size()).arg(m_link.error());
            return false;
        }
        if (!answered) {
            m_link.open(std::max(1000, timeout_ms - int(clock.elapsed())));
        } else {
            QThread::msleep(100);  // unroutable for now: the broker is still starting
        }
    }
    return true;
}

}  // namespace faults
