#include "command_responder.h"

#include <QDateTime>
#include <QJsonArray>
#include <QJsonDocument>
#include <QUuid>
#include <limits>

#include "amqp/rabbit_publisher.h"
#include "amqp/rabbit_receiver.h"
#include "meter_fleet.h"

namespace {

const char* const command_key = "cmd.in.netcore";

qint64 integer(const QJsonValue& value, qint64 fallback) {
    return value.isDouble() ? qint64(value.toDouble()) : fallback;
}

// "status_id" is the store's identifier as text; a number is taken as its decimal text.
QString text(const QJsonValue& value) {
    return value.isDouble() ? QString::number(qint64(value.toDouble())) : value.toString();
}

}  // namespace

command_responder::command_responder(logger& log, const settings& config, rabbit_publisher_impl& publisher,
                                     const uplink_history& history, netsim_counters& counters,
                                     QObject* parent)
    : QObject(parent),
      m_log(log),
      m_config(config),
      m_publisher(publisher),
      m_history(history),
      m_counters(counters),
      m_random(config.seed, 0x646cu) {
    const QString id = QUuid::createUuid().toString(QUuid::Id128).left(16);
    m_ping_key = "netsim.ready." + id;
    rabbit_receiver_cfg cfg;
    cfg.url = config.url;
    cfg.vhost = config.vhost;
    cfg.queue = "netsim_cmd_" + id;
    // The ping key is bound last: its message coming back means everything is bound.
    cfg.bindings = {{config.exchange, command_key}, {config.exchange, m_ping_key}};
    cfg.queue_options = 0x04 | 0x08;  // exclusive, auto-delete
    cfg.prefetch = 100;
    m_receiver = std::make_unique<rabbit_receiver>(log, cfg, nullptr, true, true);
    connect(m_receiver.get(), &rabbit_receiver::raw_routekey_data_received, this,
            &command_responder::on_message);
    connect(&m_ping_timer, &QTimer::timeout, this, &command_responder::ping);
    m_ping_timer.start(300);
}

command_responder::~command_responder() = default;

void command_responder::ping() {
    if (m_publisher.is_connected()) {
        m_publisher.publish_string(QByteArrayLiteral("{}"), m_ping_key.toLatin1(), "text/plain");
    }
}

void command_responder::on_message(const QByteArray& payload, const QString& routing_key, uint64_t tag) {
    m_receiver->ack_message(tag, false);
    if (routing_key == m_ping_key) {
        if (!m_ready) {
            m_ready = true;
            m_ping_timer.stop();
            Q_EMIT ready();
        }
        return;
    }
    const QJsonObject request = QJsonDocument::fromJson(payload).object();
    const QString type = request["msg_type"].toString();
    const QJsonObject data = request["data"].toObject();
    log_line(m_log, Debug) << "netsim: command " << type << ": " << payload;
    if (type == "dl") {
        respond(request, {{"ok", true}});
        answer_downlink(data);
    } else if (type == "get_ul_history") {
        const qint64 count = answer_history(data);
        respond(request, {{"ok", true}, {"count", count}});
    } else if (type != "response") {
        respond(request, {{"ok", false}, {"error", "unknown command '" + type + "'"}});
    }
}

void command_responder::respond(const QJsonObject& request, const QJsonObject& data) {
    const QString sender = request["sender"].toString();
    if (sender.isEmpty()) {
        return;
    }
    publish(sender, {{"msg_type", "response"}, {"cmd_id", request["cmd_id"].toString()}, {"data", data}});
}

void command_responder::answer_downlink(const QJsonObject& data) {
    const int modem_id = int(integer(data["modem_id"], 0));
    const QString status_id = text(data["status_id"]);
    const bool fault = m_random.uniform() < m_config.fault_ratio;
    const int delay = m_config.report_delay_ms;
    ++m_pending;
    report(modem_id, status_id, "dl_queued");
    QTimer::singleShot(delay, this,
                       [this, modem_id, status_id] { report(modem_id, status_id, "dl_inprocess"); });
    QTimer::singleShot(2 * delay, this, [this, modem_id, status_id, fault] {
        report(modem_id, status_id, fault ? "dl_fault" : "dl_success");
        --m_pending;
        ++m_counters.downlinks;
        if (fault) {
            ++m_counters.downlink_faults;
        }
    });
}

void command_responder::report(int modem_id, const QString& status_id, const QString& type) {
    publish(netsim::uplink_routing_key(modem_id, m_config.instance, m_config.protocol, m_config.ul_route_key),
            {{"msg_type", type}, {"modem_id", modem_id}, {"status_id", status_id}});
}

qint64 command_responder::answer_history(const QJsonObject& data) {
    ++m_counters.history_requests;
    QList<int> ids;
    for (const QJsonValue& id : data["ids"].toArray()) {
        ids.append(int(integer(id, -1)));
    }
    const qint64 from = integer(data["from"], 0);
    const qint64 to = integer(data["to"], QDateTime::currentSecsSinceEpoch());
    qint64 limit = integer(data["limit"], 0);
    if (limit <= 0) {
        limit = std::numeric_limits<qint64>::max();
    }
    const QString prefix = data["routing_key_prefix"].toString();
    const QString history_prefix =
        prefix.isEmpty() ? QString("ul_history.%1.%2").arg(m_config.instance, m_config.protocol) : prefix;
    const std::vector<uplink_history::entry> entries = m_history.select(ids, from, to, limit);
    for (const uplink_history::entry& e : entries) {
        publish(QString("nc.0.%1.%2").arg(history_prefix).arg(e.modem_id), e.message);
    }
    m_counters.history_messages += qint64(entries.size());
    return qint64(entries.size());
}

void command_responder::publish(const QString& routing_key, const QJsonObject& message) {
    m_publisher.publish_string(QJsonDocument(message).toJson(QJsonDocument::Compact), routing_key.toLatin1(),
                               "text/plain");
}
