#include "mbus_writer.h"

#include <stdexcept>

namespace netsim {

namespace {

uint8_t integer_coding(int bytes) {
    switch (bytes) {
        case 1:
            return 0x1;
        case 2:
            return 0x2;
        case 3:
            return 0x3;
        case 4:
            return 0x4;
        case 6:
            return 0x6;
        case 8:
            return 0x7;
    }
    throw std::invalid_argument("mbus_writer: no integer coding of that many bytes");
}

uint8_t bcd_coding(int digits) {
    switch (digits) {
        case 2:
            return 0x9;
        case 4:
            return 0xA;
        case 6:
            return 0xB;
        case 8:
            return 0xC;
        case 12:
            return 0xE;
    }
    throw std::invalid_argument("mbus_writer: no BCD coding of that many digits");
}

}  // namespace

mbus_writer& mbus_writer::short_header(uint8_t access_number, uint8_t status) {
    m_bytes.append(char(0x7A));
    m_bytes.append(char(access_number));
    m_bytes.append(char(status));
    m_bytes.append(char(0x00));  // configuration word, little-endian: no encryption
    m_bytes.append(char(0x00));
    return *this;
}

mbus_writer& mbus_writer::no_header() {
    m_bytes.append(char(0x78));
    return *this;
}

void mbus_writer::dif(uint8_t coding, int storage) {
    if (storage < 0 || storage > 1) {
        throw std::invalid_argument("mbus_writer: only storage numbers 0 and 1 are written");
    }
    m_bytes.append(char(coding | (storage ? 0x40 : 0x00)));
}

mbus_writer& mbus_writer::integer(const QByteArray& vib, int64_t value, int bytes, int storage) {
    dif(integer_coding(bytes), storage);
    m_bytes.append(vib);
    const uint64_t raw = static_cast<uint64_t>(value);
    for (int i = 0; i < bytes; ++i) {
        m_bytes.append(char((raw >> (8 * i)) & 0xff));
    }
    return *this;
}

mbus_writer& mbus_writer::bcd(const QByteArray& vib, uint64_t value, int digits, int storage) {
    dif(bcd_coding(digits), storage);
    m_bytes.append(vib);
    for (int i = 0; i < digits / 2; ++i) {  // least significant byte first
        const uint8_t low = value % 10;
        value /= 10;
        const uint8_t high = value % 10;
        value /= 10;
        m_bytes.append(char((high << 4) | low));
    }
    return *this;
}

mbus_writer& mbus_writer::date(int year, int month, int day, int storage) {
    // Type G: day bits 0-4, year bits 0-2 in bits 5-7; month bits 8-11, year bits 3-6 in 12-15.
    const int y = year - 2000;
    const uint16_t word =
        uint16_t((day & 0x1f) | ((y & 0x07) << 5) | ((month & 0x0f) << 8) | (((y >> 3) & 0x0f) << 12));
    dif(0x2, storage);
    m_bytes.append(char(0x6C));
    m_bytes.append(char(word & 0xff));
    m_bytes.append(char(word >> 8));
    return *this;
}

mbus_writer& mbus_writer::date_time(int year, int month, int day, int hour, int minute, int storage) {
    // Type F: minute bits 0-5; hour bits 8-12; day bits 16-20, year bits 0-2 in 21-23;
    // month bits 24-27, year bits 3-6 in 28-31.
    const int y = year - 2000;
    const uint32_t word = uint32_t(minute & 0x3f) | (uint32_t(hour & 0x1f) << 8) |
                          (uint32_t(day & 0x1f) << 16) | (uint32_t(y & 0x07) << 21) |
                          (uint32_t(month & 0x0f) << 24) | (uint32_t((y >> 3) & 0x0f) << 28);
    dif(0x4, storage);
    m_bytes.append(char(0x6D));
    for (int i = 0; i < 4; ++i) {
        m_bytes.append(char((word >> (8 * i)) & 0xff));
    }
    return *this;
}

}  // namespace netsim
