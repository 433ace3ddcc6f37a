#pragma once

#include <QByteArray>
#include <QJsonObject>
#include <QString>
#include <QStringList>

#include "engine/output_sinks.h"
#include "model/records.h"

// Publication of stored messages and decoded records to the client applications.
namespace publication {

inline const char* const roll_template = "%1.%2.ul_roll.%3.%4.%5.%6";
inline const char* const eav_template = "%1.%2.ul_eav.%3.%4.%5.%6";
// Every publication goes out as text.
inline const char* const mime_type = "text/plain";

// Fills the template by successive single substitutions, each replacing the
// lowest-numbered placeholder still present: a substituted text that itself holds a
// placeholder is filled by a later substitution.
QString fill_route(const QString& route_template, const QStringList& parts);

QString roll_route(const model::ul_message& message, const QString& client, int index);
QString event_route(const model::ul_message& stored, const model::dev_event& event, const QString& client,
                    int index);
QString value_route(const model::ul_message& stored, const model::dev_value& value, const QString& client,
                    int index);

// The published body: the record's own compact JSON text, or an envelope with a fresh
// "cmd_id" around it.
QByteArray body(const QByteArray& record_json, const char* msg_type, bool wrap);
QByteArray body(const QJsonObject& record, const char* msg_type, bool wrap);

void publish_message(const model::ul_message& message, const QString& client, int index,
                     publication_sink& sink, bool wrap);
// Everything one uplink publishes: for each client in turn (index = its position), every
// record in list order and then the stored message.
void publish_uplink(const model::ul_message& stored, const model::eav_list& records,
                    const QStringList& clients, publication_sink& sink, bool wrap);
void publish_record(const model::ul_message& stored, const model::eav_record& record, const QString& client,
                    int index, publication_sink& sink, bool wrap);

}  // namespace publication
