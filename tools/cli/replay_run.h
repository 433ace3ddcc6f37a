#pragma once

#include <QTextStream>

#include "tools/cli/cli_options.h"

namespace cli {

// Exit status of `quillon-cli replay`.
enum replay_status { replay_done = 0, replay_failed = 1, replay_left_some = 2 };

// Moves the messages of run.queue to run.exchange under their original routing keys (or
// with run.dry_run lists them), one at a time: each is acknowledged on its queue only
// after the broker confirmed the publication. Lines go to `out`, failures to `err`.
int run_replay(const invocation& run, QTextStream& out, QTextStream& err);

// What an operator sees of a body: its first bytes, unprintable ones as '.'.
QString body_preview(const QByteArray& body, int length = 48);

}  // namespace cli
