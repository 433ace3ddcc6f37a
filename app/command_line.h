#pragma once

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QString>

// The service's command line: -c config file, -i instance count, -n instance position,
// --print-config.
namespace command_line {

// Sets the application name and version, which the version option prints.
void set_application_identity();

// Registers -c, -i, -n and --print-config, then the help and version options.
void register_options(QCommandLineParser& parser);

// Identity, options and QCommandLineParser::process, which itself prints and exits
// on help, version or an unknown option.
bool process(QCommandLineParser& parser, const QCoreApplication& app);

QString config_path(const QCommandLineParser& parser);
bool print_config(const QCommandLineParser& parser);  // --print-config
int instances(const QCommandLineParser& parser);      // -i; text that is not a number gives 0
int position(const QCommandLineParser& parser);       // -n; text that is not a number gives 0

// Why a count and position cannot serve (a count below 1, a position outside
// 0 .. count-1), or an empty text when they can.
QString instance_error(int instances, int position);

}  // namespace command_line
