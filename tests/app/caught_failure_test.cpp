#include <gtest/gtest.h>

#include <QString>
#include <stdexcept>
#include <system_error>

#include "app/caught_failure.h"

namespace {
// What a boundary sees when `thrower` throws.
template <typename Thrower>
caught_failure caught(Thrower thrower) {
    try {
        thrower();
    } catch (...) {
        return caught_failure::current();
    }
    return caught_failure::of(nullptr);
}

struct not_an_exception {
    int code = 3;
};
}  // namespace

TEST(CaughtFailure, EachKindOfThrowGivesItsText) {
    const caught_failure standard = caught([] { throw std::runtime_error("database is locked"); });
    EXPECT_EQ(standard.thrown, caught_failure::kind::standard);
    EXPECT_EQ(standard.message(), "database is locked");

    // A derived class is still a standard exception, with its own what().
    const caught_failure derived = caught([] { throw std::out_of_range("index 7"); });
    EXPECT_EQ(derived.thrown, caught_failure::kind::standard);
    EXPECT_EQ(derived.message(), "index 7");

    const caught_failure text = caught([] { throw QString("dl message 42 not found"); });
    EXPECT_EQ(text.thrown, caught_failure::kind::text);
    EXPECT_EQ(text.message(), "dl message 42 not found");

    const caught_failure number = caught([] { throw 42; });
    EXPECT_EQ(number.thrown, caught_failure::kind::other);
    EXPECT_EQ(number.text, "");
    EXPECT_EQ(number.message(), "unknown exception");

    EXPECT_EQ(caught([] { throw not_an_exception{}; }).message(), "unknown exception");
    // A C string is not a QString: nothing is guessed from it.
    EXPECT_EQ(caught([] { throw "plain text"; }).thrown, caught_failure::kind::other);
}

TEST(CaughtFailure, TextsKeepTheirBytesAndEmptinessIsNotSuccess) {
    // what() is UTF-8: "Zähler" (a with diaeresis is c3 a4).
    EXPECT_EQ(caught([] { throw std::runtime_error("Z\xc3\xa4hler"); }).message(),
              QString::fromUtf8("Zähler"));
    // An empty text is still a failure of its kind.
    const caught_failure empty = caught([] { throw std::runtime_error(""); });
    EXPECT_EQ(empty.thrown, caught_failure::kind::standard);
    EXPECT_EQ(empty.message(), "");
    EXPECT_EQ(caught([] { throw QString(); }).thrown, caught_failure::kind::text);
}

TEST(CaughtFailure, NothingThrownReadsAsUnknown) {
    const caught_failure none = caught_failure::of(nullptr);
    EXPECT_EQ(none.thrown, caught_failure::kind::other);
    EXPECT_EQ(none.message(), "unknown exception");
    // Outside any catch block there is no current exception either.
    EXPECT_EQ(caught_failure::current().thrown, caught_failure::kind::other);
}
