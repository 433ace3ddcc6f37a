#pragma once

#include <QSettings>
#include <QString>
#include <memory>
#include <stdexcept>

#include "app/logger.h"

// Pieces that quillon-cli and quillon-watch share: their error type, the service's
// configuration file, and the quiet defaults of a command-line tool.
namespace tool {

// A bad command line or bad input: reported on stderr, exit status 1.
class usage_error : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// The service's INI file. `explicitly_given` (-c on the command line) makes a missing
// file an error; the default ./quillon.ini may be absent, and every key then takes the
// service's default.
std::unique_ptr<QSettings> open_configuration(const QString& path, bool explicitly_given);

// The AMQP endpoints log to stderr at debug level with --verbose, and nowhere otherwise
// (their failures are reported by the tool itself).
std::unique_ptr<logger> endpoint_logger(bool verbose, const QString& name);

// Qt's debug output (the endpoints write a few lines there) only with --verbose.
void install_message_filter(bool verbose);

// A whole number above 0 from an option's text (seconds, counts).
int positive_integer(const QString& text, const QString& option);

}  // namespace tool
