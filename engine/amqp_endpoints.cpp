#include "engine/amqp_endpoints.h"

#include "amqp/amqp_connection.h"

amqp_endpoints::amqp_endpoints(std::unique_ptr<rabbit_receiver> receiver,
                               std::unique_ptr<rabbit_publisher<rabbit_publisher_clients_config>> publisher,
                               std::unique_ptr<rabbit_api_man> api)
    : m_receiver(std::move(receiver)), m_publisher(std::move(publisher)), m_api(std::move(api)) {}

void amqp_endpoints::publish(const QByteArray& body, const QString& routing_key, const QString& mime_type) {
    m_publisher->publish_string(body, routing_key.toLatin1(), mime_type);
}

void amqp_endpoints::send_command(const QString& type, const QJsonObject& data, const QString& routing_key,
                                  int sharded) {
    api_command_sender(*m_api).send_command(type, data, routing_key, sharded);
}

void amqp_endpoints::flush_publications() {
    m_publisher->transport().flush_writes();
}

QString amqp_endpoints::api_key() const {
    return m_api->config().api_key;
}

void amqp_endpoints::flush_commands() {
    m_api->publisher_transport().flush_writes();
}

void amqp_endpoints::ack_message(uint64_t tag) {
    m_receiver->ack_message(tag, false);
}

void amqp_endpoints::reject_message(uint64_t tag) {
    m_receiver->reject_message(tag);
}

void amqp_endpoints::requeue_message(uint64_t tag) {
    m_receiver->requeue_message(tag);
}

bool amqp_endpoints::redelivered(uint64_t tag) const {
    return m_receiver->redelivered(tag);
}

int amqp_endpoints::prefetch() const {
    return m_receiver->prefetch();
}

void amqp_endpoints::flush_settlements() {
    m_receiver->flush_settlements();
}

void amqp_endpoints::pause_consuming() {
    m_receiver->pause_consuming();
}

void amqp_endpoints::resume_consuming() {
    m_receiver->resume_consuming();
}

void api_command_sender::send_command(const QString& type, const QJsonObject& data,
                                      const QString& routing_key, int sharded) {
    // The outcome of a downlink arrives later as a report of its own: nothing waits here.
    m_api.send_cmd(
        type, data, routing_key, [](const QJsonDocument&) { return true; }, [](const QString&) {}, sharded);
}

QString api_command_sender::api_key() const {
    return m_api.config().api_key;
}
