#pragma once

#include <QString>
#include <exception>

// What was thrown, as the log tells it. Failures reach the boundaries as standard
// exceptions, as texts (stores report a failed lookup by throwing a QString) or as
// anything else; each boundary maps them through here, so that all read alike.
struct caught_failure {
    enum class kind { standard, text, other };

    kind thrown = kind::other;
    QString text;  // what() of a standard exception, the thrown text; empty for other

    // The exception being handled: call only inside a catch block.
    static caught_failure current();
    static caught_failure of(const std::exception_ptr& thrown);

    // The text for a log line or an error reply: the exception's own text, or
    // "unknown exception" for a throw of any other type.
    QString message() const;
};
