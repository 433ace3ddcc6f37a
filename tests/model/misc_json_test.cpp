#include <gtest/gtest.h>

#include <QJsonDocument>

#include "model/json.h"

TEST(DeviceDescriptionJson, EachKindUnderItsNumberedKey) {
    model::device_parameter volume;
    volume.number = 3;
    volume.comment = "Total volume";
    volume.name = "volume";
    volume.div = 1000;
    volume.mul = 0.5;
    volume.unit = "m3";
    volume.write = true;
    volume.calib = false;
    volume.primary = true;
    volume.min_value = -1;
    volume.max_value = 99999.5;

    model::device_event_description bare{1, "Reset", "", 0};
    model::device_event_description magnet{2, "Magnet", "magnet", 17};
    model::device_control valve{3, "Valve", "valve"};

    const model::device_description d = {volume, bare, magnet, valve};
    const QJsonObject expected = QJsonDocument::fromJson(R"({
        "par3": {"comment": "Total volume", "name": "volume", "div": 1000, "mul": 0.5, "unit": "m3",
                 "write": true, "calib": false, "primary": true, "min_value": -1, "max_value": 99999.5},
        "event1": {"comment": "Reset"},
        "event2": {"comment": "Magnet", "name": "magnet", "code": 17},
        "ctrl3": {"comment": "Valve", "name": "valve"}})")
                                     .object();
    EXPECT_EQ(model::to_json(d), expected) << QJsonDocument(model::to_json(d)).toJson().toStdString();
    EXPECT_TRUE(model::to_json(model::device_description{}).isEmpty());
}

TEST(ModemRadioSummary, CopiesTheListedMembersOnly) {
    const QStringList listed = {"dl_mode",
                                "dl_phy",
                                "last_dl_bs",
                                "last_dl_bs_aver_busyness",
                                "last_dl_bs_busyness",
                                "last_success_dl_ts",
                                "station_id",
                                "phy",
                                "rssi",
                                "snr",
                                "time_saved",
                                "hw_type",
                                "protocol",
                                "bs_tz"};
    QJsonObject full{{"modem_id", 5}, {"payload", "00"}, {"time_detected", 1}, {"iterator", 2}};
    for (int i = 0; i < listed.size(); ++i)
        full[listed[i]] = i;

    const QJsonObject summary = model::modem_radio_summary(full);
    EXPECT_EQ(summary.size(), 14);
    for (int i = 0; i < listed.size(); ++i)
        EXPECT_EQ(summary[listed[i]], QJsonValue(i)) << listed[i].toStdString();

    EXPECT_TRUE(model::modem_radio_summary({{"modem_id", 5}}).isEmpty());
}
