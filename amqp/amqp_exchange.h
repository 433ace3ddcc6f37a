#pragma once

#include <QByteArray>
#include <QObject>
#include <QString>
#include <cstdint>

#include "app/logger.h"

namespace amqp {

class connection;

// Publishes to one exchange on a channel of its own; never declares the exchange. A
// channel that the broker closed (an exchange that does not exist, say) is opened
// afresh for the next publication.
class exchange : public QObject {
    Q_OBJECT
public:
    exchange(connection& conn, logger& log, const QString& name, QObject* parent);
    Q_DISABLE_COPY(exchange)

    const QString& name() const { return m_name; }
    bool publish(const QByteArray& body, const QByteArray& routing_key, const QString& content_type);

private:
    connection& m_conn;
    logger& m_log;
    QString m_name;
    unsigned m_generation = 0;
    uint16_t m_channel = 0;
};

}  // namespace amqp
