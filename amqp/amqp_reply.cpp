#include "amqp/amqp_reply.h"

#include <amqp_framing.h>

#include "amqp/amqp_bytes.h"

namespace amqp {

reply_verdict read_reply(const amqp_rpc_reply_t& reply) {
    reply_verdict verdict;
    switch (reply.reply_type) {
        case AMQP_RESPONSE_NORMAL:
            return verdict;
        case AMQP_RESPONSE_LIBRARY_EXCEPTION:
            verdict.what = reply_verdict::library_failure;
            verdict.text = QString::fromUtf8(amqp_error_string2(reply.library_error));
            return verdict;
        case AMQP_RESPONSE_SERVER_EXCEPTION:
            if (reply.reply.id == AMQP_CHANNEL_CLOSE_METHOD) {
                const auto* close = static_cast<amqp_channel_close_t*>(reply.reply.decoded);
                verdict.what = reply_verdict::channel_closed;
                verdict.code = close->reply_code;
                verdict.text = text_of(close->reply_text);
                return verdict;
            }
            if (reply.reply.id == AMQP_CONNECTION_CLOSE_METHOD) {
                const auto* close = static_cast<amqp_connection_close_t*>(reply.reply.decoded);
                verdict.what = reply_verdict::connection_closed;
                verdict.code = close->reply_code;
                verdict.text = text_of(close->reply_text);
                return verdict;
            }
            verdict.what = reply_verdict::no_reply;
            return verdict;
        default:
            verdict.what = reply_verdict::no_reply;
            return verdict;
    }
}

QString describe(const QString& request, const reply_verdict& verdict) {
    switch (verdict.what) {
        case reply_verdict::ok:
            return QString();
        case reply_verdict::channel_closed:
            return request + " refused by the broker: " + QString::number(verdict.code) + " " + verdict.text;
        case reply_verdict::connection_closed:
            return request + " answered by connection.close: " + QString::number(verdict.code) + " " +
                   verdict.text;
        case reply_verdict::library_failure:
            return request + " failed: " + verdict.text;
        case reply_verdict::no_reply:
            break;
    }
    return request + " got no usable reply";
}

}  // namespace amqp
