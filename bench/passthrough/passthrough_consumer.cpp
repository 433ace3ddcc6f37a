#include "bench/passthrough/passthrough_consumer.h"

namespace passthrough {

namespace {
const QString mime_type = QStringLiteral("text/plain");
}  // namespace

passthrough_consumer::passthrough_consumer(logger& log, const rabbit_receiver_cfg& uplinks,
                                           const rabbit_publisher_config& clients,
                                           publication_profile profile, QObject* parent)
    : QObject(parent), m_log(log), m_uplinks(uplinks), m_profile(std::move(profile)) {
    m_publisher = std::make_unique<rabbit_publisher_impl>(log, clients);
    // Consumption starts once publication can go out, so no uplink waits for the link.
    connect(m_publisher.get(), &rabbit_publisher_impl::conn_estimated, this,
            &passthrough_consumer::start_consuming);
}

passthrough_consumer::~passthrough_consumer() = default;

void passthrough_consumer::start_consuming() {
    if (m_receiver) {
        return;
    }
    m_receiver = std::make_unique<rabbit_receiver>(m_log, m_uplinks);
    connect(m_receiver.get(), &rabbit_receiver::data_received, this, &passthrough_consumer::on_uplink);
    Q_EMIT consuming();
}

void passthrough_consumer::on_uplink(const QJsonObject& uplink, uint64_t tag) {
    const QString modem = QString::number(uplink.value("modem_id").toInt());
    if (!m_profile.empty()) {
        for (const published_message& message : m_profile.at(m_handled)) {
            m_publisher->publish_string(body_of_size(message.size),
                                        (message.key_stem + '.' + modem).toLatin1(), mime_type);
        }
    }
    ++m_handled;
    m_receiver->ack_message(tag, false);
}

const QByteArray& passthrough_consumer::body_of_size(int size) {
    auto found = m_bodies.find(size);
    if (found == m_bodies.end()) {
        found = m_bodies.insert(size, QByteArray(size, 'x'));
    }
    return found.value();
}

}  // namespace passthrough
