#pragma once

#include <QByteArray>
#include <QJsonObject>
#include <QString>

namespace model {

// What a wireless M-Bus meter's data link layer says about it, and its key, as the
// device registry keeps them per modem. The application layer of a short-header telegram
// does not carry the meter's address, yet decryption needs it (initialization vector,
// key derivation): it comes from here.
struct meter_link {
    QString manufacturer;    // three letters ("AMB"), empty when not registered
    QString identification;  // 8 hex digits of the BCD identification number, most significant first
    int version = -1;        // 0-255, -1 when not registered
    int medium = -1;         // device type 0-255, -1 when not registered
    QByteArray aes_key;      // 16 bytes, empty when the meter has no key

    bool has_key() const { return !aes_key.isEmpty(); }
    // Manufacturer, identification, version and medium are all registered.
    bool has_address() const {
        return !manufacturer.isEmpty() && !identification.isEmpty() && version >= 0 && medium >= 0;
    }
    bool empty() const {
        return !has_key() && manufacturer.isEmpty() && identification.isEmpty() && version < 0 && medium < 0;
    }
    bool operator==(const meter_link& o) const {
        return manufacturer == o.manufacturer && identification == o.identification && version == o.version &&
               medium == o.medium && aes_key == o.aes_key;
    }
    bool operator!=(const meter_link& o) const { return !(*this == o); }
};

// Each reader checks its text and throws std::invalid_argument naming the field and
// what it must be; a key's text is never repeated in the message.
QByteArray aes_key_from_hex(const QString& text);                // 32 hex digits
QString manufacturer_from_text(const QString& text);             // 3 letters A-Z (any case), upper-cased
QString identification_from_text(const QString& text);           // 8 hex digits, lower-cased
int link_byte_from(const QJsonValue& value, const char* field);  // a whole number 0-255

// The members "aes_key", "manufacturer", "identification", "version" and "medium" of a
// registry entry in JSON; missing members stay unset, a malformed one throws as above.
meter_link meter_link_from_json(const QJsonObject& entry);
// The link fields as a registry entry shows them: never the key, only "aes_key_set".
QJsonObject meter_link_public_json(const meter_link& link);

}  // namespace model
