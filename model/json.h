#pragma once

#include <QJsonObject>
#include <QString>

#include "model/device_description.h"
#include "model/dl_queues.h"
#include "model/records.h"

// Readers and writers of the records' JSON forms. Readers never fail: a missing or
// mistyped member yields the record's default. Several pairs are deliberately not
// mirror images (see each function).
namespace model {

QJsonObject to_json(const dev_value& v);
QJsonObject to_json(const dev_event& e);

QJsonObject to_json(const ul_message& m);
// unique_id is read as a 32-bit number and hw_type as the one character whose code is
// the low byte of its numeric value: lossy on purpose.
ul_message ul_message_from_json(const QJsonObject& o);

ul_app_message ul_app_message_from_json(const QJsonObject& o);
ul_hb_message ul_hb_message_from_json(const QJsonObject& o);

// The stored/reply form: the status by name under "dl_status".
QJsonObject to_json(const dl_message& m);
// The request form: the status as a number under "status"; db_id and ttl are never
// read and timestamp is set to the current UTC time.
dl_message dl_message_from_request(const QJsonObject& o);

QJsonObject to_json(const dl_queue_entry& e);
QJsonObject to_json(const dl_queue& q);
QJsonObject to_json(const dl_queues& s);
dl_queue_entry dl_queue_entry_from_json(const QJsonObject& o);
dl_queue dl_queue_from_json(const QJsonObject& o);
dl_queues dl_queues_from_json(const QJsonObject& o);

custom_query custom_query_from_json(const QJsonObject& o);

QJsonObject to_json(const device_description& d);

QString dl_status_name(int status);
QString dl_queue_status_name(int status);
int dl_queue_status_from_name(const QString& name);

// The "common" state entry: selected members of an incoming uplink copied verbatim.
QJsonObject modem_radio_summary(const QJsonObject& uplink);

}  // namespace model
