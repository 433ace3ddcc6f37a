#include "engine/dl_sending.h"

#include <QDateTime>

#include "app/caught_failure.h"
#include "engine/engine_services.h"
#include "engine/ownership.h"
#include "interfaces/IStoreLink.h"

namespace dl_sending {

namespace {
const QByteArray start_marker = QByteArrayLiteral("start_placeholder");
const QByteArray stop_marker = QByteArrayLiteral("stop_placeholder");

QString upper_hex(const QByteArray& bytes) {
    return QString::fromLatin1(bytes.toHex().toUpper());
}

QJsonObject dl_command_data(const model::dl_message& message, const QString& payload,
                            const QString& api_key) {
    QJsonObject data;
    data["payload"] = payload;
    data["api_key"] = api_key;
    data["status_id"] = message.db_id;
    data["modem_id"] = message.modem_id;
    data["f_ack"] = message.f_ack;
    data["f_system"] = message.f_system;
    data["frequency"] = message.frequency;
    data["dl_phy"] = message.dl_phy;
    data["station_id"] = message.station_id;
    data["protocol"] = message.protocol;
    return data;
}
}  // namespace

QString splice_placeholders(QByteArray bytes) {
    const int start = bytes.indexOf(start_marker);
    bytes.replace(start_marker, QByteArray());
    const int stop = bytes.indexOf(stop_marker);
    bytes.replace(stop_marker, QByteArray());
    if (start < 0 || stop < 0 || stop < start) {
        return upper_hex(bytes);
    }
    const QByteArray before = bytes.left(start);
    const QByteArray middle = bytes.mid(start, stop - start);
    const QByteArray after = bytes.mid(stop);
    QString text;
    if (!before.isEmpty()) {
        text += upper_hex(before);
    }
    text += QString::fromUtf8(middle);
    if (!after.isEmpty()) {
        text += upper_hex(after);
    }
    return text;
}

QJsonObject send_raw(const model::dl_message& message, interfaces::IMessagesDatabase& messages,
                     command_sender& sender, const QString& payload_override) {
    QString payload =
        payload_override.isEmpty() ? QString::fromLatin1(message.payload.toHex()) : payload_override;
    const int nul = payload.indexOf(QChar(0));
    if (nul >= 0) {
        payload.truncate(nul);
    }
    model::dl_message stored = message;
    messages.dl().save(stored);
    // The outcome arrives later as a "dl_success" or "dl_fault" report.
    sender.send_command("dl", dl_command_data(stored, payload, sender.api_key()), netcore_route,
                        stored.modem_id);
    return QJsonObject{{"ok", true}, {"bd_id", stored.db_id}};
}

QJsonObject send_driver_built(model::dl_message message, interfaces::IDriver& driver,
                              interfaces::IMessagesDatabase& messages,
                              interfaces::IDeviceClientsDatabase& clients, command_sender& sender,
                              uint32_t ttl_seconds) {
    const auto device = ownership::device_of(message.modem_id, &clients, &messages);
    QByteArray encoded;
    try {
        encoded = driver.encode_dl(message, device);
    } catch (const interfaces::store_unavailable&) {
        throw;  // not the message's fault: the command fails as a whole
    } catch (...) {
        throw downlink_refused(caught_failure::current().message().toStdString());
    }
    const QString payload_text = splice_placeholders(encoded);
    message.payload = QByteArray::fromHex(payload_text.toLatin1());
    message.ttl = QDateTime::currentDateTimeUtc().addSecs(ttl_seconds);
    message.protocol = driver.type_name();
    return send_raw(message, messages, sender, payload_text);
}

}  // namespace dl_sending
