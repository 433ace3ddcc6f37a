#pragma once

#include <QVariant>
#include <QVariantHash>

struct amqp_table_t_;
struct amqp_field_value_t_;

namespace amqp {

// Reads what the broker sent as an AMQP field table (message headers, for one): nested
// tables become QVariantMap, arrays QVariantList, texts QString, byte arrays QByteArray,
// timestamps QDateTime (UTC), integers and floats their Qt counterparts.
QVariantHash read_table(const amqp_table_t_& table);
QVariant read_field(const amqp_field_value_t_& field);

}  // namespace amqp
