#pragma once

#include <QByteArray>
#include <QJsonObject>
#include <QObject>
#include <QString>
#include <cstdint>
#include <memory>

#include "app/config.h"
#include "app/logger.h"

namespace amqp {
class connection;
class queue;
}  // namespace amqp

// Consumes one queue with manual acknowledgement over a broker connection of its own.
// On every (re)connection it declares the queue, binds it (one binding after another,
// each confirmed), sets the prefetch window and consumes.
class rabbit_receiver : public QObject {
    Q_OBJECT
public:
    rabbit_receiver(logger& log, const rabbit_receiver_cfg& cfg, QObject* parent = nullptr, bool raw = false,
                    bool with_route_key = false);
    ~rabbit_receiver() override;
    Q_DISABLE_COPY(rabbit_receiver)

    virtual void ack_message(uint64_t delivery_tag, bool multiple);
    virtual void reject_message(uint64_t delivery_tag);
    // Hands the delivery back to its queue (basic.reject with requeue): the broker
    // delivers it again, to this consumer or another one.
    virtual void requeue_message(uint64_t delivery_tag);

    // Stops taking deliveries (basic.cancel) until resume_consuming(), also across
    // reconnections; deliveries already on their way still arrive and must be settled.
    virtual void pause_consuming();
    virtual void resume_consuming();
    bool paused() const;

    // The prefetch window: how many deliveries may be unsettled at once.
    int prefetch() const;
    // Whether the delivery with this tag, the last one signalled, came again after its
    // first delivery could not be settled (a connection lost before the acknowledgement).
    virtual bool redelivered(uint64_t delivery_tag) const;
    // The user the broker vouches for as the publisher of that delivery (its user_id
    // property); empty when the publisher did not give one.
    QString user_id(uint64_t delivery_tag) const;
    // Sends acknowledgements and rejections made so far now, instead of when control
    // returns to the event loop.
    void flush_settlements();

    // The broker connection, for its settings (heartbeat, time-outs, CA file) before the
    // event loop runs, and for its state.
    amqp::connection& transport() const;

Q_SIGNALS:
    void conn_estimated();
    void conn_lost();
    void data_received(QJsonObject json, uint64_t message_tag);
    void raw_data_received(QByteArray payload, uint64_t message_tag);
    void raw_routekey_data_received(QByteArray payload, QString routing_key, uint64_t message_tag);

public Q_SLOTS:
    void stop();
    void start();

private Q_SLOTS:
    void messageReceived();
    void disconnected();
    void connected();

private:
    struct impl;
    std::unique_ptr<impl> m_impl;
};
