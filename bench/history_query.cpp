#include "bench/history_query.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QUuid>
#include <algorithm>
#include <vector>

#include "bench/client_drain.h"
#include "bench/proc_stats.h"
#include "bench/service_instance.h"
#include "bench/uplink_feed.h"
#include "bench/uplink_sender.h"
#include "bench/wait.h"

namespace bench {

namespace {

// Sends one command and waits for its response; returns the milliseconds it took, or a
// negative number when no response came in time.
double call(uplink_sender& sender, client_drain& replies, const QString& command_key,
            const QString& reply_key, const QJsonObject& data, int timeout_ms, QJsonObject& response) {
    const QString id = QUuid::createUuid().toString();
    int64_t arrival = 0;
    replies.on_message([&](const amqp::message& msg, int64_t arrival_us) {
        const QJsonObject envelope = QJsonDocument::fromJson(msg.payload).object();
        if (envelope.value("cmd_id").toString() == id) {
            response = envelope.value("data").toObject();
            arrival = arrival_us;
        }
    });
    const QJsonObject envelope{
        {"msg_type", "get_eav_value"}, {"cmd_id", id}, {"sender", reply_key}, {"data", data}};
    const int64_t sent = now_us();
    sender.send(envelope, command_key);
    wait_until([&arrival] { return arrival != 0; }, timeout_ms);
    replies.on_message({});
    return arrival != 0 ? double(arrival - sent) / 1000.0 : -1.0;
}

}  // namespace

history_query_result time_history_queries(logger& log, const broker& target, broker_admin& admin,
                                          const QString& store_path, int modem, int queries, int limit) {
    history_query_result result;
    service_instance service(target.url, store_path);
    service.register_modem(modem, uplink_feed::protocol(), "mbus-heat", {});
    const QString reply_key = "bench.reply." + QUuid::createUuid().toString(QUuid::Id128).left(12);
    client_drain replies(log, target, "norvik.api", {reply_key});
    uplink_sender sender(log, target);
    if (!replies.wait_ready() || !sender.wait_ready()) {
        result.error = "query: no broker connection";
        return result;
    }
    if (!service.start()) {
        result.error = "query: the service did not start";
        return result;
    }
    const QJsonObject data{{"modem_id", QJsonArray{modem}}, {"limit", limit}};
    QJsonObject response;
    // Commands sent before the service has declared its queue are lost: ask until one
    // is answered.
    double first = -1;
    for (int attempt = 0; attempt < 60 && first < 0 && service.running(); ++attempt) {
        first = call(sender, replies, service.command_key(), reply_key, data, 1000, response);
    }
    if (first < 0) {
        result.error = "query: no response from the service: " + service.log_tail(500);
    } else {
        result.first_ms = first;
        result.rows = response.value(QString::number(modem)).toArray().size();
        std::vector<double> times;
        for (int i = 0; i < queries; ++i) {
            const double ms = call(sender, replies, service.command_key(), reply_key, data, 10000, response);
            if (ms < 0) {
                result.error = "query: a response did not come";
                break;
            }
            times.push_back(ms);
        }
        std::sort(times.begin(), times.end());
        if (!times.empty()) {
            result.p50_ms = times[times.size() / 2];
            result.max_ms = times.back();
        }
        result.queries = int(times.size());
        result.ok = result.error.isEmpty();
    }
    const rabbit_receiver_cfg uplinks = service.uplink_queue();
    service.stop();
    admin.remove(uplinks.queue);
    admin.remove(service.command_queue());
    return result;
}

}  // namespace bench
