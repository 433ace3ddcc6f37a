// The bounded record of published uplinks that history requests are answered from.
#include <gtest/gtest.h>

#include "uplink_history.h"

namespace {

QJsonObject message(int modem, qint64 time) {
    return QJsonObject{{"modem_id", modem}, {"time_detected", time}};
}

TEST(NetsimHistory, SelectsByModemTimeRangeAndLimit) {
    uplink_history history;
    for (qint64 t = 100; t < 110; ++t) {
        history.add(1, t, message(1, t));
        history.add(2, t, message(2, t));
    }
    const auto range = history.select({2}, 103, 105, 100);
    ASSERT_EQ(range.size(), 3u);
    EXPECT_EQ(range[0].time, 103);
    EXPECT_EQ(range[2].time, 105);
    EXPECT_EQ(range[0].message, message(2, 103));
    // Modem by modem in the order asked; the limit counts all of them.
    const auto both = history.select({2, 1}, 0, 1000, 12);
    ASSERT_EQ(both.size(), 12u);
    EXPECT_EQ(both[0].modem_id, 2);
    EXPECT_EQ(both[10].modem_id, 1);
    EXPECT_TRUE(history.select({3}, 0, 1000, 100).empty());
    EXPECT_TRUE(history.select({1}, 200, 100, 100).empty());
}

TEST(NetsimHistory, KeepsOnlyTheNewestPerModem) {
    uplink_history history(1000);
    for (qint64 t = 0; t < 1500; ++t) {
        history.add(7, t, message(7, t));
    }
    history.add(8, 0, message(8, 0));
    EXPECT_EQ(history.size(7), 1000);
    EXPECT_EQ(history.size(8), 1);
    const auto kept = history.select({7}, 0, 10000, 100000);
    ASSERT_EQ(kept.size(), 1000u);
    EXPECT_EQ(kept.front().time, 500);
    EXPECT_EQ(kept.back().time, 1499);
    EXPECT_THROW(uplink_history(0), std::invalid_argument);
}

}  // namespace
