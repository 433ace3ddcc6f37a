#pragma once

#include <QCommandLineParser>
#include <QString>

namespace bench {

// Reads a non-negative number option into `out`, leaving it as it is when the option is
// not given; with `whole`, the number must also be a whole one. False with `message` set
// when the text is not such a number.
template <class T>
bool read_option_number(const QCommandLineParser& parser, const QCommandLineOption& option, T& out,
                        QString& message, bool whole = false) {
    if (!parser.isSet(option)) {
        return true;
    }
    bool ok = false;
    const double value = parser.value(option).toDouble(&ok);
    if (!ok || value < 0 || (whole && value != double(T(value)))) {
        message = "--" + option.names().first() + (whole ? ": not a count: " : ": not a number: ") +
                  parser.value(option);
        return false;
    }
    out = T(value);
    return true;
}

// Qt's own warnings (the plugin loader's lines, a process that crashed on purpose) are not
// a tool's output: only critical and fatal ones go to standard error.
void quiet_qt_messages();

}  // namespace bench
