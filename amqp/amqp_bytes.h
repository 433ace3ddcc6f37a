#pragma once

#include <amqp.h>

#include <QByteArray>
#include <QString>

namespace amqp {

// Conversions between the library's byte views and Qt's strings. A view points into the
// QByteArray it was made from, which must outlive it.
inline amqp_bytes_t bytes_of(const QByteArray& data) {
    amqp_bytes_t out;
    out.len = size_t(data.size());
    out.bytes = const_cast<char*>(data.constData());
    return out;
}

inline QByteArray data_of(const amqp_bytes_t& bytes) {
    return QByteArray(static_cast<const char*>(bytes.bytes), int(bytes.len));
}

inline QString text_of(const amqp_bytes_t& bytes) {
    return QString::fromUtf8(static_cast<const char*>(bytes.bytes), int(bytes.len));
}

}  // namespace amqp
