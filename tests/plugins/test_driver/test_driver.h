#pragma once

#include <QJsonObject>

#include "interfaces/factories.h"

// A driver that decodes nothing. custom_query() reports how it was created, and sends
// one downlink through the function it was given.
class test_driver : public interfaces::IDriver {
public:
    test_driver(QJsonObject report, interfaces::dl_sender send_dl)
        : m_report(std::move(report)), m_send_dl(std::move(send_dl)) {}

    QString type_name() const override { return m_report.value("protocol").toString(); }
    QString hw_pattern() const override { return ".*"; }
    model::device_description metadata(const QString&) override { return {}; }
    void parse(const model::ul_app_message&, model::ul_message&) override {}
    model::eav_list explode(const model::ul_message&) override { return {}; }
    void write_settings(const std::map<int, QList<model::setting_item>>&) override {}
    void read_settings(QList<model::setting_result>&, const QList<int>&, const QStringList&) override {}
    void write_calibs(const std::map<int, QList<model::calib_item>>&) override {}
    void read_calibs(QList<model::calib_result>&, const QList<int>&, const QStringList&) override {}
    QByteArray encode_dl(const model::dl_message&, const std::pair<QString, QString>&) override { return {}; }
    bool needs_dl_processing(const controller_event&) override { return false; }
    int new_dl_status(const controller_event&, const model::dl_message& message) override {
        return message.dl_status;
    }
    void extract_values(model::per_modem<model::dev_value>&, const model::value_query&) override {}
    void extract_events(model::per_modem<model::dev_event>&, const model::value_query&) override {}
    void extract_roll(model::per_modem<model::ul_message>&, const model::roll_query&) override {}
    bool controller(const controller_event&) override { return false; }
    QJsonObject custom_query(const model::custom_query& query) override;

private:
    QJsonObject m_report;
    interfaces::dl_sender m_send_dl;
};
