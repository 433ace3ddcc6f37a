#pragma once

#include <QByteArray>
#include <QDateTime>
#include <QJsonObject>
#include <QJsonValue>
#include <QString>

// Downlinks to M-Bus meters, built from the "data" of a downlink message: application
// layer bytes, starting with the CI field as the uplinks do.
namespace mbus {

// CI fields of the commands sent to a meter.
constexpr unsigned char ci_data_send = 0x51;
constexpr unsigned char ci_application_reset = 0x50;

// A point in time as the 4-byte type F field (minute resolution, years 2000 to 2127).
// Throws std::invalid_argument outside that range.
QByteArray type_f(const QDateTime& time);

// True when "data" names a driver command ("cmd" is a text); other downlinks carry their
// payload as it is.
bool is_command(const QJsonObject& data);

// The bytes of a command: "set_datetime", "application_reset", "set_primary_address",
// "raw" (hex text between the start and stop placeholders). Throws std::invalid_argument
// with the reason for an unknown command or a bad argument.
QByteArray encode_command(const QJsonObject& data);

// True for commands whose effect an uplink must confirm before they count as executed.
bool needs_confirmation(const QJsonObject& data);

// The reported value that confirms such a command: the obis code and the value.
struct confirmation {
    QString obis_code;
    double value = 0;
};
confirmation confirmation_of(const QJsonObject& data);

// Settings that write_setting sends to the meter, and the command that writes one.
bool writable_setting(const QString& name);
QJsonObject setting_command(const QString& name, const QJsonValue& value);

}  // namespace mbus
