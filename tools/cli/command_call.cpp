#include "tools/cli/command_call.h"

#include <QEventLoop>
#include <QJsonDocument>
#include <QTimer>
#include <QUuid>

namespace cli {

command_call::command_call(tool::exchange_link& link, const QString& reply_key, QObject* parent)
    : QObject(parent), m_link(link), m_reply_key(reply_key) {
    connect(&m_link, &tool::exchange_link::received, this, &command_call::on_received);
}

void command_call::prepare(const QString& command, const QJsonObject& body) {
    m_cmd_id = QUuid::createUuid().toString();
    m_envelope =
        QJsonObject{{"msg_type", command}, {"sender", m_reply_key}, {"cmd_id", m_cmd_id}, {"data", body}};
}

bool command_call::send(const QString& routing_key, int timeout_ms, QJsonObject* response) {
    QEventLoop loop;
    QTimer limit;
    limit.setSingleShot(true);
    connect(&limit, &QTimer::timeout, &loop, &QEventLoop::quit);
    connect(this, &command_call::answered, &loop, &QEventLoop::quit);
    m_link.publish(QJsonDocument(m_envelope).toJson(QJsonDocument::Compact), routing_key);
    limit.start(timeout_ms);
    if (!m_answered) {
        loop.exec();
    }
    if (m_answered && response) {
        *response = m_response;
    }
    return m_answered;
}

void command_call::on_received(const QByteArray& payload, const QString& routing_key) {
    if (m_answered || routing_key != m_reply_key) {
        return;
    }
    const QJsonObject message = QJsonDocument::fromJson(payload).object();
    // Anything else on the reply key (a late answer to an earlier run cannot reach this
    // queue, but a foreign publication could) is ignored.
    if (message.value("msg_type").toString() != "response" ||
        message.value("cmd_id").toString() != m_cmd_id) {
        return;
    }
    m_response = message;
    m_answered = true;
    Q_EMIT answered();
}

}  // namespace cli
