#include "model/meter_link.h"

#include <QJsonValue>
#include <QRegularExpression>
#include <cmath>
#include <stdexcept>

namespace model {

namespace {

[[noreturn]] void invalid(const QString& text) {
    throw std::invalid_argument(text.toStdString());
}

bool all_hex(const QString& text, int digits) {
    static const QRegularExpression hex("^[0-9A-Fa-f]*$");
    return text.size() == digits && hex.match(text).hasMatch();
}

}  // namespace

QByteArray aes_key_from_hex(const QString& text) {
    // The message names the length only: a key, even a malformed one, is never echoed.
    if (!all_hex(text, 32)) {
        invalid(QString("\"aes_key\" must be 32 hex digits (16 bytes), got %1 characters%2")
                    .arg(text.size())
                    .arg(text.size() == 32 ? " that are not all hex digits" : ""));
    }
    return QByteArray::fromHex(text.toLatin1());
}

QString manufacturer_from_text(const QString& text) {
    static const QRegularExpression letters("^[A-Za-z]{3}$");
    if (!letters.match(text).hasMatch()) {
        invalid(QString("\"manufacturer\" must be three letters (as \"ABC\"), not \"%1\"").arg(text));
    }
    return text.toUpper();
}

QString identification_from_text(const QString& text) {
    if (!all_hex(text, 8)) {
        invalid(QString("\"identification\" must be the 8 digits of the identification number (as "
                        "\"12345678\"), not \"%1\"")
                    .arg(text));
    }
    return text.toLower();
}

int link_byte_from(const QJsonValue& value, const char* field) {
    const double number = value.toDouble(-1);
    if (!value.isDouble() || number < 0 || number > 255 || std::floor(number) != number) {
        invalid(QString("\"%1\" must be a whole number from 0 to 255").arg(field));
    }
    return static_cast<int>(number);
}

meter_link meter_link_from_json(const QJsonObject& entry) {
    meter_link link;
    auto text = [&entry](const char* field) -> QString {
        const QJsonValue v = entry.value(field);
        if (!v.isString()) {
            invalid(QString("\"%1\" must be a text").arg(field));
        }
        return v.toString();
    };
    if (entry.contains("aes_key")) {
        link.aes_key = aes_key_from_hex(text("aes_key"));
    }
    if (entry.contains("manufacturer")) {
        link.manufacturer = manufacturer_from_text(text("manufacturer"));
    }
    if (entry.contains("identification")) {
        link.identification = identification_from_text(text("identification"));
    }
    if (entry.contains("version")) {
        link.version = link_byte_from(entry.value("version"), "version");
    }
    if (entry.contains("medium")) {
        link.medium = link_byte_from(entry.value("medium"), "medium");
    }
    return link;
}

QJsonObject meter_link_public_json(const meter_link& link) {
    QJsonObject o;
    if (!link.manufacturer.isEmpty()) {
        o["manufacturer"] = link.manufacturer;
    }
    if (!link.identification.isEmpty()) {
        o["identification"] = link.identification;
    }
    if (link.version >= 0) {
        o["version"] = link.version;
    }
    if (link.medium >= 0) {
        o["medium"] = link.medium;
    }
    o["aes_key_set"] = link.has_key();
    return o;
}

}  // namespace model
