#pragma once

#include <QByteArray>
#include <QString>

#include "mbus_types.h"
#include "model/meter_link.h"

namespace mbus {

// Decryption of the application layer: security mode 5 (AES-128-CBC, initialization vector
// from the meter's address and the access number) and security mode 7 (AES-128-CBC, zero
// initialization vector, key derived per message with AES-CMAC from the meter's key, the
// message counter and the identification number).
struct decryption {
    enum class outcome {
        plain,      // nothing to decrypt: the records are read as they are
        decrypted,  // `payload` holds the plain bytes
        skipped,    // not attempted: no key, no address, or a mode that is not decrypted
        failed,     // attempted with the registry's key: the result did not verify
    };
    outcome result = outcome::plain;
    QByteArray payload;  // the whole payload with the encrypted blocks replaced by plain ones
    QString problem;     // why skipped or failed; never holds key material
};

// `at` is the offset of the first encrypted byte (right after the header). `meter` is the
// registry's entry for the modem (an empty one when it has none).
decryption decrypt(const QByteArray& payload, int at, const app_header& header,
                   const model::meter_link& meter);

// The meter's address as the initialization vector and the key derivation use it:
// manufacturer (2 bytes), identification number (4 BCD bytes), version, medium, each as
// the link layer sends them (least significant byte first). From the long header when
// the payload has one, else from the registry; empty when neither has it.
QByteArray meter_address(const app_header& header, const model::meter_link& meter);
// Security mode 5: the address followed by the access number 8 times.
QByteArray mode5_iv(const QByteArray& address, int access_number);
// Security mode 7: the key for "meter to other party" encryption, AES-CMAC over the
// derivation constant 0x00, the message counter (4 bytes as sent), the identification
// number (4 bytes as sent) and 0x07 seven times.
QByteArray mode7_encryption_key(const QByteArray& key, const QByteArray& message_counter,
                                const QByteArray& identification);

}  // namespace mbus
