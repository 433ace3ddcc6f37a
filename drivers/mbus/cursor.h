#pragma once

#include <QByteArray>
#include <QString>
#include <cstdint>

#include "decode_error.h"

namespace mbus {

// Bounded reader over a payload. Every read checks the remaining length first and throws
// decode_error naming the element being read, so nothing is ever read past the end.
class cursor {
public:
    explicit cursor(const QByteArray& bytes, int pos = 0) : m_bytes(bytes), m_pos(pos) {}

    int pos() const { return m_pos; }
    int size() const { return m_bytes.size(); }
    int remaining() const { return m_bytes.size() - m_pos; }
    bool at_end() const { return m_pos >= m_bytes.size(); }
    uint8_t peek() const { return static_cast<uint8_t>(m_bytes.at(m_pos)); }

    uint8_t byte(const char* element) {
        if (at_end()) {
            throw decode_error(QString("truncated %1").arg(element), m_pos);
        }
        return static_cast<uint8_t>(m_bytes.at(m_pos++));
    }

    QByteArray bytes(int count, const char* element) {
        if (count > remaining()) {
            throw decode_error(
                QString("truncated %1: %2 bytes needed, %3 left").arg(element).arg(count).arg(remaining()),
                m_pos);
        }
        QByteArray out = m_bytes.mid(m_pos, count);
        m_pos += count;
        return out;
    }

    const QByteArray& all() const { return m_bytes; }

    QByteArray rest() {
        QByteArray out = m_bytes.mid(m_pos);
        m_pos = m_bytes.size();
        return out;
    }

private:
    const QByteArray& m_bytes;
    int m_pos;
};

}  // namespace mbus
