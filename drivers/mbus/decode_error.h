#pragma once

#include <QString>
#include <stdexcept>

namespace mbus {

// A fault in a payload: what was wrong and the byte offset where it was found. Thrown
// inside the decoder only; decode() turns it into the parse status.
class decode_error : public std::runtime_error {
public:
    decode_error(const QString& what, int offset)
        : std::runtime_error(what.toStdString()), m_what(what), m_offset(offset) {}
    const QString& text() const { return m_what; }
    int offset() const { return m_offset; }

private:
    QString m_what;
    int m_offset;
};

}  // namespace mbus
