#pragma once

#include <QDateTime>
#include <QVariant>

#include "cursor.h"
#include "mbus_types.h"

namespace mbus {

// A record's data field: the bytes as received and their value before any scaling
// (double for numbers, QString for text and for binary as hex, QDateTime for dates;
// invalid for no data, selection for readout and invalid dates).
struct data_field {
    QByteArray raw;
    QVariant value;
    // Set when the bytes were read whole but cannot be interpreted (invalid BCD digit,
    // coding unsuitable for a date): "<what>, at byte n". value is then invalid.
    QString problem;
};

// Reads the data field of the given DIF coding; kind says whether the VIF makes the
// bytes a number or a date. Throws decode_error only when the field's length cannot be
// known (truncated, reserved LVAR).
data_field read_data_field(cursor& in, int coding, value_kind kind);

// The codings, usable on their own.
int64_t signed_le(const QByteArray& bytes);
float real32_le(const QByteArray& bytes);
// Type A, least significant byte first; a top nibble 0xf makes the value negative.
// offset is the payload offset of bytes, for the error message of a non-decimal digit.
int64_t bcd_le(const QByteArray& bytes, int offset);
// Type G (2 bytes), type F (4 bytes), type I (6 bytes); an invalid QDateTime when the
// meter marks the time invalid or the fields are out of range. Taken as UTC.
QDateTime date_g(const QByteArray& bytes);
QDateTime date_time_f(const QByteArray& bytes);
QDateTime date_time_i(const QByteArray& bytes);

}  // namespace mbus
