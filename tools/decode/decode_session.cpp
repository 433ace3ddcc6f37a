#include "decode_session.h"

#include <QJsonArray>

#include "model/json.h"

namespace {

PMConfig plugin_config(const decode_options& options) {
    PMConfig pm;
    pm.db_name = "db_driver_dummy";
    pm.protocol = options.protocol;
    pm.instance_names = QStringList{options.instance};
    pm.plugin_path = options.plugin_dir;
    pm.plugin_config_path = options.plugin_dir;
    pm.plugin_db_config_path = options.plugin_dir;
    return pm;
}

}  // namespace

decode_session::decode_session(const decode_options& options)
    : m_options(options),
      m_log(QString(), Off, "quillon-decode"),  // the tool reports on stderr, not in a log
      m_plugins(std::make_unique<PluginsManager>(plugin_config(options), m_log)) {
    m_driver = m_plugins->create_driver(
        m_plugins->messages_database(), m_plugins->eav_database(),
        [](const model::dl_message&) { return QJsonObject(); }, m_options.ttl_seconds, 0);
    if (!m_options.meter.empty()) {
        // The in-memory registry is the tool's own: the meter is entered as the modem.
        m_plugins->clients_database()->set_device(
            m_options.modem_id, model::device_record{QString(), QString(), {}, m_options.meter});
    }
}

QJsonObject decode_session::decode(const QByteArray& payload) {
    model::ul_app_message in;
    in.modem_id = m_options.modem_id;
    in.payload = payload;
    in.time_detected =
        m_options.time_detected.isValid() ? m_options.time_detected : QDateTime::currentDateTimeUtc();
    in.time_saved = in.time_detected;
    in.protocol = m_driver->type_name();

    model::ul_message message;
    m_driver->parse(in, message);
    // What the engine writes over the parsed record.
    message.hw_type = in.hw_type;
    message.protocol = in.protocol;
    message.station_id = in.station_id;
    message.phy = in.phy;
    message.snr = in.snr;
    message.rssi = in.rssi;
    message.payload = in.payload;
    message.iterator = in.iterator;
    message.tz_mismatch = in.tz_mismatch;
    message.time_detected = in.time_detected;
    message.dl_phy = in.dl_phy;
    message.last_dl_bs_aver_busyness = in.last_dl_bs_aver_busyness;
    message.last_dl_bs_busyness = in.last_dl_bs_busyness;
    message.bs_timezone_offset = in.bs_tz;
    message.ttl = QDateTime::currentDateTimeUtc().addSecs(m_options.ttl_seconds);

    QJsonArray values;
    QJsonArray events;
    for (const model::eav_record& r : m_driver->explode(message)) {
        if (const auto* e = std::get_if<model::dev_event>(&r)) {
            events.append(model::to_json(*e));
        } else {
            values.append(model::to_json(std::get<model::dev_value>(r)));
        }
    }
    return {{"payload", QString::fromLatin1(payload.toHex())},
            {"message", model::to_json(message)},
            {"values", values},
            {"events", events}};
}
