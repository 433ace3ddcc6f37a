#pragma once

#include <QJsonObject>
#include <QList>
#include <QString>
#include <QStringList>
#include <functional>
#include <map>
#include <stdexcept>
#include <variant>
#include <vector>

#include "interfaces/IDriver.h"

// The protocol driver of the unit tests: every answer is set by the test, every call the
// test may ask about is recorded. It serves protocol `m_type` and the hardware types that
// match `m_pattern`.
//
// Decoding: parse copies the modem, the iterator (as unique id 1000 + iterator) and a tag
// "t"; explode returns `m_records` with the modem filled in. The command handlers' calls
// (settings, calibrations, extracts, metadata, custom queries) are recorded and answered
// with what the test put into the matching member.
class fake_driver : public interfaces::IDriver {
public:
    QString m_type = "proto7";
    QString m_pattern = "X";

    // Decoding.
    model::eav_list m_records;
    int m_throw_for_modem = -1;           // parse throws for this modem
    int m_explode_throws_for_modem = -1;  // after the stored message has been saved

    // Downlinks.
    bool m_needs_dl = false;
    int m_new_status = model::WAIT_DATA;
    QByteArray m_dl_bytes;
    QString m_encode_error;  // non-empty: encode_dl throws it as a standard exception

    // The controller hook.
    int m_controller_calls = 0;
    std::function<void()> m_on_controller;  // runs first in controller(); may throw
    bool m_controller_result = false;
    bool m_controller_throws = false;
    int m_controller_throws_for_modem = -1;  // for uplinks of this modem only

    // Settings and calibrations: what was written, what a read answers and what it asked.
    std::vector<std::map<int, QList<model::setting_item>>> m_written_settings;
    std::vector<std::map<int, QList<model::calib_item>>> m_written_calibs;
    QList<model::setting_result> m_setting_results;
    QList<model::calib_result> m_calib_results;
    QList<int> m_read_modems;
    QStringList m_read_names;

    // Extracts: what they answer and the queries they were given.
    model::per_modem<model::dev_value> m_extracted_values;
    model::per_modem<model::dev_event> m_extracted_events;
    model::per_modem<model::ul_message> m_extracted_roll;
    std::vector<model::value_query> m_value_queries;
    std::vector<model::roll_query> m_roll_queries;

    // Metadata (one parameter "volume" in m3, commented "for <hw type>") and custom
    // queries ({"answered": how many so far}).
    QStringList m_metadata_requests;
    std::vector<model::custom_query> m_custom_queries;

    QString type_name() const override { return m_type; }
    QString hw_pattern() const override { return m_pattern; }

    model::device_description metadata(const QString& hw_type) override {
        m_metadata_requests.append(hw_type);
        model::device_parameter parameter;
        parameter.number = 1;
        parameter.name = "volume";
        parameter.comment = "for " + hw_type;
        parameter.unit = "m3";
        return model::device_description{parameter};
    }

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

    void write_settings(const std::map<int, QList<model::setting_item>>& settings) override {
        m_written_settings.push_back(settings);
    }
    void read_settings(QList<model::setting_result>& out, const QList<int>& modems,
                       const QStringList& names) override {
        m_read_modems = modems;
        m_read_names = names;
        out = m_setting_results;
    }
    void write_calibs(const std::map<int, QList<model::calib_item>>& calibs) override {
        m_written_calibs.push_back(calibs);
    }
    void read_calibs(QList<model::calib_result>& out, const QList<int>& modems,
                     const QStringList& names) override {
        m_read_modems = modems;
        m_read_names = names;
        out = m_calib_results;
    }

    QByteArray encode_dl(const model::dl_message&, const std::pair<QString, QString>&) override {
        if (!m_encode_error.isEmpty()) {
            throw std::invalid_argument(m_encode_error.toStdString());
        }
        return m_dl_bytes;
    }
    bool needs_dl_processing(const controller_event&) override { return m_needs_dl; }
    int new_dl_status(const controller_event&, const model::dl_message&) override { return m_new_status; }

    void extract_values(model::per_modem<model::dev_value>& out, const model::value_query& query) override {
        m_value_queries.push_back(query);
        out = m_extracted_values;
    }
    void extract_events(model::per_modem<model::dev_event>& out, const model::value_query& query) override {
        m_value_queries.push_back(query);
        out = m_extracted_events;
    }
    void extract_roll(model::per_modem<model::ul_message>& out, const model::roll_query& query) override {
        m_roll_queries.push_back(query);
        out = m_extracted_roll;
    }

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

    QJsonObject custom_query(const model::custom_query& query) override {
        m_custom_queries.push_back(query);
        return QJsonObject{{"answered", int(m_custom_queries.size())}};
    }
};
