#pragma once

#include <QByteArray>
#include <QHash>
#include <QJsonObject>
#include <QObject>
#include <cstdint>
#include <memory>

#include "amqp/rabbit_publisher.h"
#include "amqp/rabbit_receiver.h"
#include "app/config.h"
#include "app/logger.h"
#include "bench/passthrough/publication_profile.h"

namespace passthrough {

// The least an uplink consumer can do on the service's AMQP settings: take each uplink
// off the queue (parsed as JSON, prefetch window, manual acknowledgement), publish to the
// client exchange as many messages of the same sizes as the service would, and
// acknowledge. Nothing is decoded or stored, so its rate is what the broker allows.
class passthrough_consumer : public QObject {
    Q_OBJECT
public:
    passthrough_consumer(logger& log, const rabbit_receiver_cfg& uplinks,
                         const rabbit_publisher_config& clients, publication_profile profile,
                         QObject* parent = nullptr);
    ~passthrough_consumer() override;

    uint64_t handled() const { return m_handled; }

Q_SIGNALS:
    void consuming();

private:
    void start_consuming();
    void on_uplink(const QJsonObject& uplink, uint64_t tag);
    const QByteArray& body_of_size(int size);

    logger& m_log;
    rabbit_receiver_cfg m_uplinks;
    publication_profile m_profile;
    std::unique_ptr<rabbit_publisher_impl> m_publisher;
    std::unique_ptr<rabbit_receiver> m_receiver;
    QHash<int, QByteArray> m_bodies;
    uint64_t m_handled = 0;
};

}  // namespace passthrough
