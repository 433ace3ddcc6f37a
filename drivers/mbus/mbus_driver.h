#pragma once

#include <QJsonObject>
#include <QString>
#include <QStringList>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>

#include "interfaces/factories.h"
#include "mbus_types.h"

// The driver's configuration (plug_mbus.json).
struct mbus_driver_config {
    QString protocol = "proto7";
    QStringList instances = {"marl2"};
    QString hw_pattern = ".*";

    // Missing or mistyped keys keep their defaults.
    static mbus_driver_config from_json(const QJsonObject& o);
};

// Protocol driver for meters whose payloads carry the M-Bus application layer.
class MbusDriver : public interfaces::IDriver {
public:
    static constexpr const char* tag = "mbus";

    MbusDriver(const mbus_driver_config& config, std::shared_ptr<interfaces::IMessagesDatabase> messages,
               std::shared_ptr<interfaces::IDriverState> state, interfaces::dl_sender send_dl,
               int ttl_seconds, std::shared_ptr<interfaces::IEAVDatabase> eav = nullptr);

    QString type_name() const override { return m_config.protocol; }
    QString hw_pattern() const override { return m_config.hw_pattern; }
    model::device_description metadata(const QString& hw_type) override;
    void parse(const model::ul_app_message& in, model::ul_message& out) override;
    model::eav_list explode(const model::ul_message& message) override;
    void write_settings(const std::map<int, QList<model::setting_item>>& settings) override;
    void read_settings(QList<model::setting_result>& out, const QList<int>& modems,
                       const QStringList& names) override;
    void write_calibs(const std::map<int, QList<model::calib_item>>& calibs) override;
    void read_calibs(QList<model::calib_result>& out, const QList<int>& modems,
                     const QStringList& names) override;
    QByteArray encode_dl(const model::dl_message& message,
                         const std::pair<QString, QString>& device) override;
    bool needs_dl_processing(const controller_event& event) override;
    int new_dl_status(const controller_event& event, const model::dl_message& message) override;
    void extract_values(model::per_modem<model::dev_value>& out, const model::value_query& query) override;
    void extract_events(model::per_modem<model::dev_event>& out, const model::value_query& query) override;
    void extract_roll(model::per_modem<model::ul_message>& out, const model::roll_query& query) override;
    bool controller(const controller_event& event) override;
    QJsonObject custom_query(const model::custom_query& query) override;
    void set_log(interfaces::log_sink sink) override { m_log = std::move(sink); }

    // How the driver finds a modem's meter link (address and key) for decryption.
    using meter_directory = std::function<model::meter_link(int modem_id)>;
    void set_meter_directory(meter_directory directory) { m_meters = std::move(directory); }

private:
    // Decodes a payload of the modem, decrypting it with the modem's registry entry.
    mbus::decode_result decode_for(int modem_id, const QByteArray& payload) const;
    // One Warning per modem and problem while a modem's telegrams cannot be decrypted.
    void report_security(int modem_id, const mbus::decode_result& decoded);
    void supersede(const QString& db_id);
    // A stored message decoded again with this driver: data, parse status and tag renewed.
    model::ul_message redecode(const model::ul_message& stored) const;
    // The stored uplinks a value query covers.
    model::per_modem<model::ul_message> roll_for(const model::value_query& query) const;
    interfaces::IDriverState& state() const;
    model::eav_list explode_with(const model::ul_message& message, const QJsonObject& calib) const;
    model::eav_list explode_decoded(const model::ul_message& message, const mbus::decode_result& decoded,
                                    const QJsonObject& calib) const;
    QJsonObject calib_of(int modem_id) const;
    // Settings the meter must confirm: a pending value is kept until an uplink reports it.
    bool confirm_settings(const model::ul_message& uplink);
    // Driver-built downlinks past their timeout become TIMEOUT.
    bool time_out_downlinks();
    void watch_downlinks(int modem_id, bool on);
    QJsonObject last_values(const QList<int>& modems) const;

    mbus_driver_config m_config;
    std::shared_ptr<interfaces::IMessagesDatabase> m_messages;
    std::shared_ptr<interfaces::IDriverState> m_state;
    interfaces::dl_sender m_send_dl;
    int m_ttl_seconds;
    std::shared_ptr<interfaces::IEAVDatabase> m_eav;
    // Modems that have driver-built downlinks still open; read from the state once.
    std::set<int> m_watched;
    bool m_watch_loaded = false;
    meter_directory m_meters;
    interfaces::log_sink m_log;
    std::map<int, QString> m_security_reported;  // modem -> the problem last logged
    // The decoding of the message parse() handled last, for the explode() of the same
    // message that follows it; used once, so a key changed meanwhile applies to the next
    // telegram as it would without it.
    struct parsed_decoding {
        int modem_id = 0;
        QByteArray payload;
        std::shared_ptr<const mbus::decode_result> decoded;
    };
    std::optional<parsed_decoding> m_last_parsed;
};
