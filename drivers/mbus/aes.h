#pragma once

#include <QByteArray>

namespace mbus {

// AES-128 through OpenSSL's libcrypto. Keys and initialization vectors are 16 bytes;
// anything else, or a failure inside libcrypto, throws std::runtime_error (whose text
// never holds key material).

// CBC decryption without padding; `data` is a whole number of 16-byte blocks.
QByteArray aes128_cbc_decrypt(const QByteArray& key, const QByteArray& iv, const QByteArray& data);
// CBC encryption without padding (the inverse, for tools and tests).
QByteArray aes128_cbc_encrypt(const QByteArray& key, const QByteArray& iv, const QByteArray& data);
// AES-CMAC (RFC 4493, NIST SP 800-38B) of `message`: 16 bytes.
QByteArray aes128_cmac(const QByteArray& key, const QByteArray& message);

}  // namespace mbus
