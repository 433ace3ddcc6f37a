#pragma once

#include <amqp.h>

#include <QString>

namespace amqp {

// What the reply to a synchronous request says, for the blocking callers (link set-up,
// tools): whether it succeeded, and if not, who said no and in which words.
struct reply_verdict {
    enum kind { ok, channel_closed, connection_closed, library_failure, no_reply };
    kind what = ok;
    int code = 0;  // the broker's reply code when it closed the channel or the connection
    QString text;  // the broker's reply text, or the library's error

    bool refused_by_broker() const { return what == channel_closed || what == connection_closed; }
};

reply_verdict read_reply(const amqp_rpc_reply_t& reply);
// "queue.declare of q refused by the broker: 406 PRECONDITION_FAILED - ..." and the like;
// empty for a reply that succeeded.
QString describe(const QString& request, const reply_verdict& verdict);

}  // namespace amqp
