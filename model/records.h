#pragma once

#include <QByteArray>
#include <QDateTime>
#include <QJsonDocument>
#include <QJsonObject>
#include <QList>
#include <QString>
#include <QVariant>
#include <cstdint>
#include <list>
#include <map>
#include <variant>

#include "model/deferred_document.h"

namespace model {

// One measured value decoded from an uplink (an EAV "value" row).
struct dev_value {
    int32_t modem_id = 0;
    QDateTime timestamp;
    QString obis_code;
    QString tag;
    QVariant value;
    QString message_id;
    QDateTime ttl;
};

// One event decoded from an uplink (an EAV "event" row).
struct dev_event {
    int32_t modem_id = 0;
    QDateTime timestamp;
    int32_t event_code = 0;
    QString message_id;
    QString message;
    QJsonDocument extended_data;
    int32_t parameter = 0;
    QDateTime ttl;
};

// Alternative 0 is the event, alternative 1 the value.
using eav_record = std::variant<dev_event, dev_value>;
using eav_list = std::list<eav_record>;

// A stored (parsed) uplink: the unit of the message history ("roll").
struct ul_message {
    int32_t modem_id = 0;
    int32_t station_id = 0;
    QDateTime ttl;
    QDateTime timestamp;
    QDateTime time_detected;
    int32_t bs_timezone_offset = 0;
    QString phy;
    int32_t snr = 0;
    int32_t rssi = 0;
    QString tag;
    int64_t unique_id = 0;
    // The driver's decoded content; the driver builds its document form only when read.
    deferred_document data;
    QJsonDocument extended_data;
    QString parse_status;
    QString hw_type;
    QString protocol;
    QByteArray payload;
    bool tz_mismatch = false;
    // Kept in memory only; the JSON form leaves them out.
    // data as compact JSON text, when whoever set data wrote that too (the driver does, so
    // that the store and the publication do not serialize it again); empty otherwise.
    // Whoever changes data afterwards clears it.
    QByteArray data_text;
    QString dl_phy;
    double last_dl_bs_aver_busyness = 0.0;
    double last_dl_bs_busyness = 0.0;
    int32_t iterator = 0;
};

// An application uplink as the network server delivers it ("ul_app").
struct ul_app_message {
    QString dl_mode;
    QString dl_phy;
    int32_t last_dl_bs = 0;
    double last_dl_bs_aver_busyness = 0.0;
    double last_dl_bs_busyness = 0.0;
    int32_t last_success_dl_ts = 0;
    int32_t modem_id = 0;
    QByteArray payload;
    int32_t station_id = 0;
    QString phy;
    int32_t rssi = 0;
    int32_t snr = 0;
    int32_t iterator = 0;
    QDateTime time_detected;
    QDateTime time_saved;
    QString hw_type;
    QString protocol;
    int32_t bs_tz = 0;
    bool tz_mismatch = false;
};

// A heartbeat uplink ("ul_hb").
struct ul_hb_message {
    int32_t modem_id = 0;
    QByteArray payload;
    int32_t station_id = 0;
    QString phy;
    int32_t rssi = 0;
    int32_t snr = 0;
    int32_t iterator = 0;
    QDateTime time_detected;
    QDateTime time_saved;
    QString hw_type;
    QString protocol;
    int32_t bs_tz = 0;
    double temperature = 0.0;
    double voltage = 0.0;
};

enum dl_status : int32_t { PENDING = 0, WAIT_DATA = 1, EXECUTED = 2, TIMEOUT = 3 };

// One downlink message.
struct dl_message {
    int32_t f_ack = 1;
    int32_t f_system = 0;
    int32_t station_id = 0;
    int32_t frequency = 0;
    int32_t dl_phy = 63;
    int32_t modem_id = 0;
    int32_t timeout = 0;
    QDateTime ttl;
    QDateTime timestamp;
    QString db_id;
    QString api_key;
    QString user_id;
    int32_t dl_status = PENDING;
    QJsonObject data;
    QByteArray payload;
    QString protocol;  // not part of the JSON forms
};

// A downlink progress report from the network server.
struct dl_event {
    int32_t modem_id = 0;
    QString msg_type;
    QDateTime time;
    QString status_id;
};

// The request of the free-form query command.
struct custom_query {
    std::map<QString, QString> query;
    QJsonObject body;
    QString type;
    QString instance;
    QList<int> modem_id;
};

}  // namespace model

// What the driver's controller hook and the downlink-queue step are told after each
// accepted message: alternative 0 an uplink, 1 a downlink report.
using controller_event = std::variant<model::ul_message, model::dl_event>;
