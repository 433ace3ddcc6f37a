#include <gtest/gtest.h>

#include <QJsonObject>
#include <QString>
#include <stdexcept>

#include "amqp/command_outcome.h"
#include "app/logger.h"

namespace {
caught_failure thrown_by(void (*thrower)()) {
    try {
        thrower();
    } catch (...) {
        return caught_failure::current();
    }
    return caught_failure::of(nullptr);
}
}  // namespace

// Each way a command can end, with what it answers, how it is settled and what is logged.
TEST(CommandOutcome, AnAnsweredCommandRepliesWithItsResultAndKeepsItsWrites) {
    const command_outcome ok = command_outcome::answered(QJsonObject{{"1", QJsonObject{{"ok", true}}}});
    EXPECT_STREQ(ok.name, "ok");
    EXPECT_TRUE(ok.replies);
    EXPECT_EQ(ok.reply, (QJsonObject{{"1", QJsonObject{{"ok", true}}}}));
    EXPECT_TRUE(ok.acknowledged);
    EXPECT_TRUE(ok.keeps_writes);
    EXPECT_EQ(ok.log_level, Off);

    // An empty result is still a reply: its "data" is {}.
    const command_outcome empty = command_outcome::answered(QJsonObject());
    EXPECT_TRUE(empty.replies);
    EXPECT_TRUE(empty.reply.isEmpty());
}

TEST(CommandOutcome, AFailureIsLoggedRejectedAndUnanswered) {
    const command_outcome standard =
        command_outcome::failed(thrown_by([] { throw std::runtime_error("disk full"); }));
    EXPECT_STREQ(standard.name, "error");
    EXPECT_FALSE(standard.replies);
    EXPECT_FALSE(standard.acknowledged);
    EXPECT_FALSE(standard.keeps_writes);
    EXPECT_EQ(standard.log_level, Error);
    EXPECT_EQ(standard.log_text, "error while parse income message :disk full");

    // A store's error text reads the same as a standard exception; anything else is named.
    EXPECT_EQ(command_outcome::failed(thrown_by([] { throw QString("dl message 9 not found"); })).log_text,
              "error while parse income message :dl message 9 not found");
    EXPECT_EQ(command_outcome::failed(thrown_by([] { throw 1; })).log_text,
              "error while parse income message :unknown exception");

    const command_outcome unknown =
        command_outcome::unknown(thrown_by([] { throw std::runtime_error("GET_INFO does not exist"); }));
    EXPECT_STREQ(unknown.name, "unknown");
    EXPECT_FALSE(unknown.replies);
    EXPECT_FALSE(unknown.acknowledged);
    EXPECT_EQ(unknown.log_text, "error while parse income message :GET_INFO does not exist");
}

TEST(CommandOutcome, AStoreOutageIsAnsweredAndAcknowledgedWithNothingKept) {
    const command_outcome away = command_outcome::store_unavailable(
        "get_roll", "{6f1c2f4e-0000-4000-8000-000000000001}", "connection refused");
    EXPECT_STREQ(away.name, "error");
    EXPECT_TRUE(away.replies);
    EXPECT_EQ(away.reply, (QJsonObject{{"status", "fail"}, {"error", "store unavailable"}}));
    EXPECT_TRUE(away.acknowledged);
    EXPECT_FALSE(away.keeps_writes);
    EXPECT_EQ(away.log_level, Warning);
    EXPECT_EQ(away.log_text,
              "command get_roll {6f1c2f4e-0000-4000-8000-000000000001} not run: store unavailable "
              "(connection refused)");
}

TEST(CommandOutcome, RefusedAndRepeatedCommands) {
    const command_outcome forbidden = command_outcome::forbidden("exit", "", "reply.key");
    EXPECT_STREQ(forbidden.name, "forbidden");
    EXPECT_EQ(forbidden.reply, (QJsonObject{{"status", "forbidden"}}));
    EXPECT_TRUE(forbidden.acknowledged);
    EXPECT_EQ(forbidden.log_level, Warning);
    EXPECT_EQ(forbidden.log_text,
              "command exit from user \"(none)\" refused: not allowed; sender key \"reply.key\"");
    EXPECT_EQ(command_outcome::forbidden("exit", "meter-app", "k").log_text,
              "command exit from user \"meter-app\" refused: not allowed; sender key \"k\"");

    const command_outcome repeated = command_outcome::repeated("reparse_modem", "{id}", 2);
    EXPECT_STREQ(repeated.name, "repeated");
    EXPECT_FALSE(repeated.replies);
    EXPECT_FALSE(repeated.acknowledged);
    EXPECT_EQ(repeated.log_level, Error);
    EXPECT_EQ(repeated.log_text,
              "command reparse_modem {id} delivered again after 2 runs that could not be settled; rejected "
              "without running it again");
}
