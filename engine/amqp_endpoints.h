#pragma once

#include <memory>

#include "amqp/rabbit_api_man.h"
#include "amqp/rabbit_publisher.h"
#include "amqp/rabbit_receiver.h"
#include "app/config.h"
#include "engine/output_sinks.h"

// The engine's outputs over the broker: the uplink consumer settles deliveries, the
// client publisher takes publications, the command client sends commands. Owns the three
// endpoints.
class amqp_endpoints : public publication_sink, public command_sender, public delivery_settler {
public:
    amqp_endpoints(std::unique_ptr<rabbit_receiver> receiver,
                   std::unique_ptr<rabbit_publisher<rabbit_publisher_clients_config>> publisher,
                   std::unique_ptr<rabbit_api_man> api);
    amqp_endpoints(const amqp_endpoints&) = delete;
    amqp_endpoints& operator=(const amqp_endpoints&) = delete;

    engine_outputs outputs() { return {this, this, this}; }

    rabbit_receiver& receiver() const { return *m_receiver; }
    rabbit_publisher<rabbit_publisher_clients_config>& publisher() const { return *m_publisher; }
    rabbit_api_man& api() const { return *m_api; }

    // publication_sink
    void publish(const QByteArray& body, const QString& routing_key, const QString& mime_type) override;
    void flush_publications() override;
    // command_sender
    void send_command(const QString& type, const QJsonObject& data, const QString& routing_key,
                      int sharded) override;
    QString api_key() const override;
    void flush_commands() override;
    // delivery_settler
    void ack_message(uint64_t tag) override;
    void reject_message(uint64_t tag) override;
    void requeue_message(uint64_t tag) override;
    bool redelivered(uint64_t tag) const override;
    int prefetch() const override;
    void flush_settlements() override;
    void pause_consuming() override;
    void resume_consuming() override;

private:
    std::unique_ptr<rabbit_receiver> m_receiver;
    std::unique_ptr<rabbit_publisher<rabbit_publisher_clients_config>> m_publisher;
    std::unique_ptr<rabbit_api_man> m_api;
};

// Sends straight through a command client, without waiting for the answer.
class api_command_sender : public command_sender {
public:
    explicit api_command_sender(rabbit_api_man& api) : m_api(api) {}
    void send_command(const QString& type, const QJsonObject& data, const QString& routing_key,
                      int sharded) override;
    QString api_key() const override;

private:
    rabbit_api_man& m_api;
};
