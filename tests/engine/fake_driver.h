#pragma once

#include <QJsonObject>
#include <functional>
#include <stdexcept>

#include "interfaces/IDriver.h"

// A driver whose decoding the test controls: parse copies a few fields, explode returns
// `records` with the modem filled in.
class fake_driver : public interfaces::IDriver {
public:
    QString m_type = "proto7";
    QString m_pattern = "X";
    model::eav_list m_records;
    bool m_needs_dl = false;
    int m_new_status = model::WAIT_DATA;
    int m_throw_for_modem = -1;
    int m_explode_throws_for_modem = -1;  // after the stored message has been saved
    QByteArray m_dl_bytes;
    QString m_encode_error;  // non-empty: encode_dl throws it as a standard exception
    int m_controller_calls = 0;
    std::function<void()> m_on_controller;  // runs first in controller(); may throw
    bool m_controller_result = false;
    bool m_controller_throws = false;
    int m_controller_throws_for_modem = -1;  // for uplinks of this modem only

    QString type_name() const override { return m_type; }
    QString hw_pattern() const override { return m_pattern; }
    model::device_description metadata(const QString&) override { return {}; }
    void parse(const model::ul_app_message& in, model::ul_message& out) override {
        if (in.modem_id == m_throw_for_modem) {
            throw std::runtime_error("boom");
        }
        out.modem_id = in.modem_id;
        out.tag = "t";
        out.parse_status = "parsed";
        out.unique_id = 1000 + in.iterator;
        out.timestamp = QDateTime::currentDateTimeUtc();
    }
    model::eav_list explode(const model::ul_message& message) override {
        if (message.modem_id == m_explode_throws_for_modem) {
            throw std::runtime_error("explode failed");
        }
        model::eav_list records = m_records;
        for (auto& record : records) {
            std::visit([&](auto& r) { r.modem_id = message.modem_id; }, record);
        }
        return records;
    }
    void write_settings(const std::map<int, QList<model::setting_item>>&) override {}
    void read_settings(QList<model::setting_result>&, const QList<int>&, const QStringList&) override {}
    void write_calibs(const std::map<int, QList<model::calib_item>>&) override {}
    void read_calibs(QList<model::calib_result>&, const QList<int>&, const QStringList&) override {}
    QByteArray encode_dl(const model::dl_message&, const std::pair<QString, QString>&) override {
        if (!m_encode_error.isEmpty()) {
            throw std::invalid_argument(m_encode_error.toStdString());
        }
        return m_dl_bytes;
    }
    bool needs_dl_processing(const controller_event&) override { return m_needs_dl; }
    int new_dl_status(const controller_event&, const model::dl_message&) override { return m_new_status; }
    void extract_values(model::per_modem<model::dev_value>&, const model::value_query&) override {}
    void extract_events(model::per_modem<model::dev_event>&, const model::value_query&) override {}
    void extract_roll(model::per_modem<model::ul_message>&, const model::roll_query&) override {}
    bool controller(const controller_event& event) override {
        ++m_controller_calls;
        if (m_on_controller) {
            m_on_controller();
        }
        const auto* uplink = std::get_if<model::ul_message>(&event);
        if (m_controller_throws || (uplink && uplink->modem_id == m_controller_throws_for_modem)) {
            throw std::runtime_error("controller failed");
        }
        return m_controller_result;
    }
    QJsonObject custom_query(const model::custom_query&) override { return {}; }
};
