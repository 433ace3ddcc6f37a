#pragma once

#include <QByteArray>
#include <cstdint>

namespace netsim {

// Builds an M-Bus application-layer payload (EN 13757-3 variable data structure):
// CI field and short header, then data records, each as DIF [DIFE] VIF [VIFE...] data.
class mbus_writer {
public:
    // CI 0x7A: access number, status, configuration word 0 (not encrypted).
    mbus_writer& short_header(uint8_t access_number, uint8_t status);
    // CI 0x78: no header.
    mbus_writer& no_header();

    // Binary integer record, little-endian, of 1, 2, 3, 4, 6 or 8 bytes. `storage` 0 or 1
    // (bit 6 of the DIF); `vib` holds the VIF and any VIFEs.
    mbus_writer& integer(const QByteArray& vib, int64_t value, int bytes, int storage = 0);
    // BCD record (type A) of 2, 4, 6 or 8 digits; the value must be non-negative.
    mbus_writer& bcd(const QByteArray& vib, uint64_t value, int digits, int storage = 0);
    // Date, type G (2 bytes; VIF 0x6C).
    mbus_writer& date(int year, int month, int day, int storage = 0);
    // Date and time, type F (4 bytes, minute resolution; VIF 0x6D).
    mbus_writer& date_time(int year, int month, int day, int hour, int minute, int storage = 0);

    const QByteArray& bytes() const { return m_bytes; }

private:
    void dif(uint8_t coding, int storage);

    QByteArray m_bytes;
};

}  // namespace netsim
