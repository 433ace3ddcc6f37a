#include <gtest/gtest.h>

#include <limits>

#include "engine/ownership.h"

namespace {
constexpr int int_min = std::numeric_limits<int>::min();
constexpr int int_max = std::numeric_limits<int>::max();
}  // namespace

// The signed remainder of the modem id by the instance count, worked out by hand; it is
// defined for every pair of ints, including the one whose quotient overflows.
TEST(InstanceOwnership, SignedRemainderForEveryInt) {
    EXPECT_TRUE(ownership::instance_matches(7, 3, 1));
    EXPECT_TRUE(ownership::instance_matches(-7, 3, -1));  // the remainder takes the id's sign
    EXPECT_FALSE(ownership::instance_matches(-7, 3, 2));
    EXPECT_TRUE(ownership::instance_matches(int_min, -1, 0));  // the quotient 2^31 does not fit
    EXPECT_TRUE(ownership::instance_matches(int_min, 1, 0));
    EXPECT_TRUE(ownership::instance_matches(int_min, 3, -2));  // -2147483648 = 3 * -715827882 - 2
    EXPECT_TRUE(ownership::instance_matches(int_max, int_min, int_max));
    EXPECT_TRUE(ownership::instance_matches(int_min, int_min, 0));
    EXPECT_TRUE(ownership::instance_matches(int_max, int_max, 0));
    EXPECT_FALSE(ownership::instance_matches(5, 0, 0));  // no instance owns anything
}
