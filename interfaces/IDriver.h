#pragma once

#include <QByteArray>
#include <QJsonObject>
#include <QList>
#include <QString>
#include <QStringList>
#include <functional>
#include <map>
#include <utility>

#include "model/device_description.h"
#include "model/queries.h"
#include "model/records.h"

namespace interfaces {

// Where a driver writes its lines into the service's log: a level (1 Error, 2 Warning,
// 3 Info, 4 Debug) and the text.
using log_sink = std::function<void(int level, const QString& text)>;

// The protocol driver: one per process.
class IDriver {
public:
    virtual ~IDriver() = default;
    // The protocol name an uplink's "protocol" must equal.
    virtual QString type_name() const = 0;
    // Regular expression a modem's hardware type must match as a whole, ignoring case.
    virtual QString hw_pattern() const = 0;
    // The device parameter description for a hardware type.
    virtual model::device_description metadata(const QString& hw_type) = 0;
    virtual void parse(const model::ul_app_message& in, model::ul_message& out) = 0;
    virtual model::eav_list explode(const model::ul_message& message) = 0;
    virtual void write_settings(const std::map<int, QList<model::setting_item>>& settings) = 0;
    virtual void read_settings(QList<model::setting_result>& out, const QList<int>& modems,
                               const QStringList& names) = 0;
    virtual void write_calibs(const std::map<int, QList<model::calib_item>>& calibs) = 0;
    virtual void read_calibs(QList<model::calib_result>& out, const QList<int>& modems,
                             const QStringList& names) = 0;
    // Payload bytes of a driver-built downlink for (protocol, hw_type); may hold the
    // "start_placeholder"/"stop_placeholder" markers.
    virtual QByteArray encode_dl(const model::dl_message& message,
                                 const std::pair<QString, QString>& device) = 0;
    virtual bool needs_dl_processing(const controller_event& event) = 0;
    virtual int new_dl_status(const controller_event& event, const model::dl_message& message) = 0;
    virtual void extract_values(model::per_modem<model::dev_value>& out, const model::value_query& query) = 0;
    virtual void extract_events(model::per_modem<model::dev_event>& out, const model::value_query& query) = 0;
    virtual void extract_roll(model::per_modem<model::ul_message>& out, const model::roll_query& query) = 0;
    virtual bool controller(const controller_event& event) = 0;
    virtual QJsonObject custom_query(const model::custom_query& query) = 0;
    // Given once after creation by the plugin manager; a driver that logs nothing ignores it.
    virtual void set_log(log_sink sink) { (void)sink; }
};

}  // namespace interfaces
