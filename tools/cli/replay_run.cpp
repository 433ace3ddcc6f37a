#include "tools/cli/replay_run.h"

#include "amqp/amqp_url.h"
#include "amqp/replay_session.h"
#include "tools/cli/dead_letter.h"

namespace cli {

namespace {

struct tally {
    uint32_t ready = 0;  // in the queue when the run started
    uint32_t taken = 0;  // looked at
    uint32_t moved = 0;  // published, confirmed and acknowledged
    uint32_t left = 0;   // left in the queue: no original key, or nowhere to go
};

QString describe(const amqp::fetched_message& m) {
    return QString("%1 bytes  %2").arg(m.msg.payload.size()).arg(body_preview(m.msg.payload));
}

}  // namespace

QString body_preview(const QByteArray& body, int length) {
    QString text;
    for (const char c : body.left(length)) {
        text += (c >= 0x20 && c < 0x7f) ? QChar(c) : QChar('.');
    }
    return body.size() > length ? text + "..." : text;
}

int run_replay(const invocation& run, QTextStream& out, QTextStream& err) {
    amqp::link_settings settings;
    settings.url = amqp::url_parts::parse(run.url);
    if (!settings.url.valid) {
        err << "quillon-cli: bad broker URL: " << settings.url.error << Qt::endl;
        return replay_failed;
    }
    settings.vhost = run.vhost;
    settings.heartbeat_s = run.heartbeat_s;
    settings.ca_cert_file = run.ca_cert;
    settings.connect_timeout_ms = run.connect_timeout_s * 1000;
    settings.rpc_timeout_ms = run.timeout_s * 1000;

    amqp::replay_session session;
    tally count;
    if (!session.open(settings) || !session.depth(run.queue, &count.ready) ||
        (!run.dry_run && !session.enable_confirms())) {
        err << "quillon-cli: replay from " << run.queue << ": " << session.error() << Qt::endl;
        return replay_failed;
    }
    // Only what is there now: a message that the service rejects again while the run
    // goes on comes back to the queue and must not be taken a second time.
    const uint32_t limit = run.count > 0 ? std::min(uint32_t(run.count), count.ready) : count.ready;
    bool broken = false;
    amqp::fetched_message m;
    while (count.taken < limit && session.get(run.queue, &m)) {
        ++count.taken;
        const dead_letter_origin origin = original_route(m.msg.headers);
        if (!origin.found) {
            ++count.left;
            out << "left in queue: (routing key " << m.msg.routing_key << ", " << origin.why_not << ")  "
                << describe(m) << Qt::endl;
            continue;  // not acknowledged: the broker requeues it when the session ends
        }
        if (run.dry_run) {
            out << "would move: " << origin.routing_key << "  " << describe(m) << Qt::endl;
            continue;
        }
        const amqp::replay_session::outcome sent = session.publish(run.exchange, origin.routing_key, m);
        if (sent == amqp::replay_session::outcome::unroutable) {
            ++count.left;
            out << "left in queue: " << origin.routing_key << " (no queue is bound to it on " << run.exchange
                << ")  " << describe(m) << Qt::endl;
            continue;
        }
        if (sent != amqp::replay_session::outcome::confirmed || !session.ack(m.msg.delivery_tag)) {
            err << "quillon-cli: replay stopped at " << origin.routing_key << ": " << session.error()
                << Qt::endl;
            broken = true;
            break;
        }
        ++count.moved;
        out << "moved: " << origin.routing_key << "  " << describe(m) << Qt::endl;
    }
    if (!broken && !session.error().isEmpty()) {
        err << "quillon-cli: replay stopped: " << session.error() << Qt::endl;
        broken = true;
    }

    if (run.dry_run) {
        out << QString(
                   "replay (dry run): %1 of %2 message(s) in %3 would go to exchange %4, %5 have no "
                   "original routing key; nothing was moved")
                   .arg(count.taken - count.left)
                   .arg(count.ready)
                   .arg(run.queue, run.exchange)
                   .arg(count.left)
            << Qt::endl;
    } else {
        out << QString("replay: moved %1 of %2 message(s) from %3 to exchange %4, %5 left in the queue")
                   .arg(count.moved)
                   .arg(count.ready)
                   .arg(run.queue, run.exchange)
                   .arg(count.left)
            << Qt::endl;
    }
    if (broken) {
        return replay_failed;
    }
    return count.left > 0 ? replay_left_some : replay_done;
}

}  // namespace cli
