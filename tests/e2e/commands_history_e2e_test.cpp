// History, re-publication, settings and calibration, and reparse commands through the
// broker with the real service process, after real uplinks went through the uplink path.
// Every case runs once with the in-memory database plugin and once with SQLite.
#include <QDateTime>
#include <QSet>

#include "tests/e2e/e2e_fixture.h"

namespace {

using e2e::detected_at;
using e2e::ids;
using e2e::key_of;

class HistoryCommands : public e2e::database_test {
protected:
    void configure(e2e::service_process& service) override {
        // Live publication off: whatever reaches the client probes was published again on
        // request.
        service.set("GENERAL_SETTINGS", "UL_CLIENT_SEND", "false");
        use_database(service,
                     QJsonObject{{key_of(modem(0)), device("X", {client("c1"), client("c2")})},
                                 {key_of(modem(1)), device("X")},
                                 {key_of(modem(2)), QJsonObject{{"protocol", "proto9"}, {"hw_type", "X"}}}});
    }

    // Modem 0: volumes of 1, 2, 3 and 4 m3 detected at +0, +30, +61 and +200 s; the third
    // uplink has a short header whose status byte 0x04 raises "power low". Modem 1: one
    // uplink.
    void publish_history() {
        publish_uplink(modem(0), e2e::volume_payload(1000), 1, detected_at);
        publish_uplink(modem(0), e2e::volume_payload(2000), 2, detected_at + 30);
        publish_uplink(modem(0), e2e::short_header_payload(0x04, 3000), 3, detected_at + 61);
        publish_uplink(modem(0), e2e::volume_payload(4000), 4, detected_at + 200);
        publish_uplink(modem(1), e2e::volume_payload(5000), 1, detected_at);
        ASSERT_TRUE(accepted(modem(0), 4));
        ASSERT_TRUE(accepted(modem(1), 1));
    }

    static QList<double> values_of(const QJsonObject& reply, int modem_id) {
        QList<double> values;
        for (const QJsonValue& record : reply.value(key_of(modem_id)).toArray()) {
            values << record.toObject().value("value").toDouble();
        }
        return values;
    }

    static QList<qint64> times_of(const QJsonObject& reply, int modem_id, const char* field = "timestamp") {
        QList<qint64> times;
        for (const QJsonValue& record : reply.value(key_of(modem_id)).toArray()) {
            times << record.toObject().value(field).toVariant().toLongLong() - detected_at;
        }
        return times;
    }

    // A value query over modem 0's readings (and the foreign modem 2).
    QJsonObject readings(QJsonObject body = {}) const {
        body["modem_id"] = ids({modem(0), modem(2)});
        if (!body.contains("to")) {
            body["to"] = detected_at + 1000;
        }
        return body;
    }
};

TEST_P(HistoryCommands, GetRollReturnsTheStoredUplinksOfOwnModems) {
    publish_history();
    const QJsonObject roll = call("get_roll", QJsonObject{{"modem_id", ids({modem(0), modem(1), modem(2)})}});
    EXPECT_EQ(roll.keys().size(), 2) << QJsonDocument(roll).toJson().toStdString();
    const QJsonArray messages = roll.value(key_of(modem(0))).toArray();
    ASSERT_EQ(messages.size(), 4);
    QStringList payloads;
    for (const QJsonValue& message : messages) {
        payloads << message.toObject().value("payload").toString();
        EXPECT_EQ(message.toObject().value("parse_status").toString(), "parsed");
        EXPECT_EQ(message.toObject().value("tag").toString(), "mbus");
        EXPECT_EQ(message.toObject().value("station_id").toInt(), 5);
        EXPECT_EQ(message.toObject().value("hw_type").toString(), "X");
    }
    EXPECT_EQ(payloads, (QStringList{"780413e8030000", "780413d0070000",
                                     "7a01040000"
                                     "0413b80b0000",
                                     "780413a00f0000"}));
    EXPECT_EQ(times_of(roll, modem(0), "time_detected"), (QList<qint64>{0, 30, 61, 200}));
    EXPECT_EQ(roll.value(key_of(modem(1))).toArray().size(), 1);

    EXPECT_EQ(call("get_roll", QJsonObject{{"modem_id", ids({modem(0)})}, {"limit", 2}})
                  .value(key_of(modem(0)))
                  .toArray()
                  .size(),
              2);
    // The range applies to the time of detection when asked to.
    const QJsonObject detected = call("get_roll", QJsonObject{{"modem_id", ids({modem(0)})},
                                                              {"time_detected", true},
                                                              {"from", detected_at + 31},
                                                              {"to", detected_at + 300}});
    EXPECT_EQ(times_of(detected, modem(0), "time_detected"), (QList<qint64>{61, 200}));
    // Otherwise to the time of storing, which is now, long before the time of detection.
    EXPECT_EQ(call("get_roll", QJsonObject{{"modem_id", ids({modem(0)})}, {"from", detected_at}}),
              QJsonObject());
    EXPECT_EQ(call("get_roll", QJsonObject{{"modem_id", ids({modem(0)})},
                                           {"from", QDateTime::currentSecsSinceEpoch() + 3600}}),
              QJsonObject());
}

TEST_P(HistoryCommands, GetRollExtractDecodesTheStoredUplinksAgain) {
    publish_history();
    const QJsonObject roll = call("get_roll_extract", QJsonObject{{"modem_id", ids({modem(0), modem(2)})}});
    ASSERT_EQ(roll.keys(), QStringList{key_of(modem(0))});
    const QJsonArray messages = roll.value(key_of(modem(0))).toArray();
    ASSERT_EQ(messages.size(), 4);
    const QJsonObject third = messages[2].toObject().value("data").toObject();
    EXPECT_EQ(third.value("header").toObject().value("type").toString(), "short");
    EXPECT_EQ(third.value("header").toObject().value("status").toInt(), 4);
    const QJsonArray records = third.value("records").toArray();
    ASSERT_EQ(records.size(), 1);
    EXPECT_EQ(records[0].toObject().value("obis_code").toString(), "volume");
    EXPECT_DOUBLE_EQ(records[0].toObject().value("value").toDouble(), 3.0);
    EXPECT_EQ(messages[0].toObject().value("parse_status").toString(), "parsed");
}

TEST_P(HistoryCommands, GetEavValueThinsEachSeriesByStep) {
    publish_history();
    const QJsonObject all = call("get_eav_value", readings());
    ASSERT_EQ(all.keys(), QStringList{key_of(modem(0))});
    EXPECT_EQ(values_of(all, modem(0)), (QList<double>{1, 2, 3, 4}));
    EXPECT_EQ(times_of(all, modem(0)), (QList<qint64>{0, 30, 61, 200}));
    const QJsonObject first = all.value(key_of(modem(0))).toArray().first().toObject();
    EXPECT_EQ(first.value("obis_code").toString(), "volume");
    EXPECT_EQ(first.value("tag").toString(), "mbus");
    EXPECT_EQ(first.value("modem_id").toInt(), modem(0));

    // Steps of 60 s counted from "from": one reading per minute of the grid.
    EXPECT_EQ(values_of(call("get_eav_value", readings({{"from", detected_at}, {"step", 60}})), modem(0)),
              (QList<double>{1, 3, 4}));
    // Counted from the epoch: detected_at is 40 s into its minute, so +30 opens the next
    // minute and +61 falls into the same one.
    EXPECT_EQ(values_of(call("get_eav_value", readings({{"step", 60}})), modem(0)), (QList<double>{1, 2, 4}));
    EXPECT_EQ(values_of(call("get_eav_value", readings({{"from", detected_at}, {"step", 0}})), modem(0)),
              (QList<double>{1, 2, 3, 4}));
    // first_and_last switches thinning off.
    EXPECT_EQ(
        values_of(call("get_eav_value", readings({{"step", 1000}, {"first_and_last", true}})), modem(0)),
        (QList<double>{1, 4}));
    EXPECT_EQ(values_of(call("get_eav_value", readings({{"limit", 3}})), modem(0)), (QList<double>{1, 2, 3}));
    // A limit of 0 reaches the store, which reads it as no limit.
    EXPECT_EQ(values_of(call("get_eav_value", readings({{"limit", 0}})), modem(0)),
              (QList<double>{1, 2, 3, 4}));
    EXPECT_EQ(values_of(call("get_eav_value", readings({{"tag", QJsonArray{"mbus"}}})), modem(0)),
              (QList<double>{1, 2, 3, 4}));
    EXPECT_EQ(call("get_eav_value", readings({{"tag", QJsonArray{"other"}}})), QJsonObject());
    EXPECT_EQ(values_of(call("get_eav_value", readings({{"from", detected_at + 31}})), modem(0)),
              (QList<double>{3, 4}));
    EXPECT_EQ(call("get_eav_value", readings({{"obis_codes", QJsonArray{"energy"}}})), QJsonObject());
    EXPECT_EQ(call("get_eav_value", readings({{"to", detected_at - 1}})), QJsonObject());
}

// Each series (OBIS code) has a grid of its own: the energy reading detected with the
// first volume is not dropped because the volume series advanced.
TEST_P(HistoryCommands, StepThinningKeepsAGridPerSeries) {
    // CI 0x78; volume 1000 l (DIF 04, VIF 13), then energy in Wh (DIF 04, VIF 03).
    const auto two_series = [](const QString& energy_hex) {
        return e2e::volume_payload(1000) + "0403" + energy_hex;
    };
    publish_uplink(modem(3), two_series("0a000000"), 1, detected_at);
    publish_uplink(modem(3), two_series("14000000"), 2, detected_at + 30);
    publish_uplink(modem(3), two_series("1e000000"), 3, detected_at + 90);
    ASSERT_TRUE(accepted(modem(3), 3));

    const QJsonObject thinned = call(
        "get_eav_value",
        QJsonObject{
            {"modem_id", ids({modem(3)})}, {"from", detected_at}, {"to", detected_at + 1000}, {"step", 60}});
    QStringList series;
    for (const QJsonValue& record : thinned.value(key_of(modem(3))).toArray()) {
        series << QString("%1@%2")
                      .arg(record.toObject().value("obis_code").toString())
                      .arg(record.toObject().value("timestamp").toVariant().toLongLong() - detected_at);
    }
    series.sort();
    EXPECT_EQ(series, (QStringList{"energy@0", "energy@90", "volume@0", "volume@90"}));
    const QJsonObject energy = call("get_eav_value", QJsonObject{{"modem_id", ids({modem(3)})},
                                                                 {"to", detected_at + 1000},
                                                                 {"obis_codes", QJsonArray{"energy"}}});
    EXPECT_EQ(values_of(energy, modem(3)), (QList<double>{10, 20, 30}));
}

// A modem missing from the registry is known by the device of its last stored uplink.
TEST_P(HistoryCommands, ModemKnownOnlyFromItsUplinksIsServed) {
    const int unregistered = modem(4);
    publish_uplink(unregistered, e2e::volume_payload(7000), 1, detected_at, "Z");
    ASSERT_TRUE(accepted(unregistered, 1));
    EXPECT_EQ(values_of(call("get_eav_value",
                             QJsonObject{{"modem_id", ids({unregistered})}, {"to", detected_at + 1}}),
                        unregistered),
              QList<double>{7});
    const QJsonObject device = call("device", QJsonObject{{"modem_id", ids({unregistered})}});
    EXPECT_EQ(device.value(key_of(unregistered))
                  .toObject()
                  .value("last_roll")
                  .toObject()
                  .value("hw_type")
                  .toString(),
              "Z");

    e2e::probe clients({QString("null.*.*.*.*.*.%1").arg(unregistered)});
    ASSERT_TRUE(clients.wait_ready());
    EXPECT_EQ(
        call("request_eav_value", QJsonObject{{"modem_id", ids({unregistered})}, {"to", detected_at + 1}}),
        (QJsonObject{{key_of(unregistered), "ok"}}));
    ASSERT_TRUE(clients.wait_for(1));
    EXPECT_EQ(clients.messages().front().routing_key,
              QString("null.0.ul_eav.Z.mbus.volume.%1").arg(unregistered));
}

TEST_P(HistoryCommands, GetEavEventReturnsTheStatusEvent) {
    publish_history();
    const QJsonObject events = call("get_eav_event", readings({{"step", 60}}));
    ASSERT_EQ(events.keys(), QStringList{key_of(modem(0))});
    const QJsonArray list = events.value(key_of(modem(0))).toArray();
    ASSERT_EQ(list.size(), 1);
    const QJsonObject event = list[0].toObject();
    EXPECT_EQ(event.value("event_code").toInt(), 4);
    EXPECT_EQ(event.value("message").toString(), "power low");
    EXPECT_EQ(event.value("parameter").toInt(), 4);
    EXPECT_EQ(event.value("modem_id").toInt(), modem(0));
    EXPECT_EQ(event.value("timestamp").toVariant().toLongLong(), detected_at + 61);
    EXPECT_EQ(event.value("extended_data").toObject().value("status").toInt(), 4);
    EXPECT_FALSE(event.value("message_id").toString().isEmpty());

    EXPECT_EQ(call("get_eav_event", readings({{"to", detected_at + 60}})), QJsonObject());
    EXPECT_EQ(call("get_eav_event", readings({{"obis_codes", QJsonArray{"4"}}}))
                  .value(key_of(modem(0)))
                  .toArray()
                  .size(),
              1);
}

TEST_P(HistoryCommands, ExtractCommandsExplodeTheStoredUplinksAgain) {
    publish_history();
    const QJsonObject values =
        call("get_eav_extract", readings({{"from", detected_at}, {"to", detected_at + 100}}));
    ASSERT_EQ(values.keys(), QStringList{key_of(modem(0))});
    EXPECT_EQ(values_of(values, modem(0)), (QList<double>{1, 2, 3}));
    EXPECT_EQ(times_of(values, modem(0)), (QList<qint64>{0, 30, 61}));
    EXPECT_EQ(
        values_of(call("get_eav_extract", readings({{"obis_codes", QJsonArray{"volume"}}, {"limit", 2}})),
                  modem(0)),
        (QList<double>{1, 2}));
    EXPECT_EQ(values_of(call("get_eav_extract", readings({{"obis_codes", QJsonArray{"energy"}}})), modem(0)),
              QList<double>());

    const QJsonObject events = call("get_eav_extract_event", readings());
    const QJsonArray list = events.value(key_of(modem(0))).toArray();
    ASSERT_EQ(list.size(), 1);
    EXPECT_EQ(list[0].toObject().value("event_code").toInt(), 4);
    EXPECT_EQ(list[0].toObject().value("timestamp").toVariant().toLongLong(), detected_at + 61);
    EXPECT_FALSE(events.contains(key_of(modem(2))));
}

TEST_P(HistoryCommands, RequestRollPublishesToEachClientAndNullWithout) {
    publish_history();
    const QString c1 = client("c1");
    const QString c2 = client("c2");
    e2e::probe clients({c1 + ".#", c2 + ".#", QString("null.*.*.*.*.*.%1").arg(modem(1))});
    ASSERT_TRUE(clients.wait_ready());

    const QJsonObject reply =
        call("request_roll", QJsonObject{{"modem_id", ids({modem(0), modem(1), modem(2)})}});
    EXPECT_EQ(reply, (QJsonObject{{key_of(modem(0)), "ok"}, {key_of(modem(1)), "ok"}}));
    ASSERT_TRUE(clients.wait_for(9)) << clients.messages().size();
    // Published again in the envelope, whatever the live publication's setting.
    QMap<QString, int> per_key;
    QStringList payloads;
    QSet<QString> cmd_ids;
    for (const e2e::received& message : clients.messages()) {
        ++per_key[message.routing_key];
        const QJsonObject envelope = message.json();
        EXPECT_EQ(envelope.value("msg_type").toString(), "quillon_ul_client_roll");
        EXPECT_FALSE(QUuid(envelope.value("cmd_id").toString()).isNull());
        cmd_ids.insert(envelope.value("cmd_id").toString());
        if (message.routing_key.startsWith(c1)) {
            payloads << envelope.value("data").toObject().value("payload").toString();
        }
    }
    EXPECT_EQ(cmd_ids.size(), 9);
    EXPECT_EQ(per_key, (QMap<QString, int>{{QString("%1.0.ul_roll.X.mbus.null.%2").arg(c1).arg(modem(0)), 4},
                                           {QString("%1.1.ul_roll.X.mbus.null.%2").arg(c2).arg(modem(0)), 4},
                                           {QString("null.0.ul_roll.X.mbus.null.%1").arg(modem(1)), 1}}));
    EXPECT_EQ(payloads.size(), 4);
    EXPECT_EQ(payloads.first(), "780413e8030000");
    EXPECT_EQ(call("request_roll", QJsonObject{{"modem_id", QJsonArray()}}), QJsonObject());
}

TEST_P(HistoryCommands, RequestEavPublishesValuesAndEventsToTheClients) {
    publish_history();
    const QString c1 = client("c1");
    const QString c2 = client("c2");
    e2e::probe clients({c1 + ".#", c2 + ".#"});
    ASSERT_TRUE(clients.wait_ready());

    EXPECT_EQ(call("request_eav_value", readings({{"from", detected_at + 31}})),
              (QJsonObject{{key_of(modem(0)), "ok"}}));
    ASSERT_TRUE(clients.wait_for(4));
    QMap<QString, QList<double>> values;
    for (const e2e::received& message : clients.messages()) {
        EXPECT_EQ(message.json().value("msg_type").toString(), "quillon_ul_client_eav_value");
        values[message.routing_key] << message.json().value("data").toObject().value("value").toDouble();
    }
    EXPECT_EQ(values, (QMap<QString, QList<double>>{
                          {QString("%1.0.ul_eav.X.mbus.volume.%2").arg(c1).arg(modem(0)), {3, 4}},
                          {QString("%1.1.ul_eav.X.mbus.volume.%2").arg(c2).arg(modem(0)), {3, 4}}}));

    clients.clear();
    EXPECT_EQ(call("request_eav_event", readings()), (QJsonObject{{key_of(modem(0)), "ok"}}));
    ASSERT_TRUE(clients.wait_for(2));
    QStringList keys;
    for (const e2e::received& message : clients.messages()) {
        keys << message.routing_key;
        EXPECT_EQ(message.json().value("msg_type").toString(), "quillon_ul_client_eav_event");
        const QJsonObject event = message.json().value("data").toObject();
        EXPECT_EQ(event.value("event_code").toInt(), 4);
        EXPECT_EQ(event.value("message").toString(), "power low");
    }
    keys.sort();
    EXPECT_EQ(keys, (QStringList{QString("%1.0.ul_eav.X.event.4.%2").arg(c1).arg(modem(0)),
                                 QString("%1.1.ul_eav.X.event.4.%2").arg(c2).arg(modem(0))}));
    // A modem with nothing stored is confirmed all the same.
    EXPECT_EQ(call("request_eav_event", QJsonObject{{"modem_id", ids({modem(1)})}}),
              (QJsonObject{{key_of(modem(1)), "ok"}}));
}

TEST_P(HistoryCommands, SettingsAndCalibrationsRoundTripThroughTheDriver) {
    const QString m0 = key_of(modem(0));
    const QJsonObject written =
        call("write_setting",
             QJsonObject{{"settings", QJsonObject{{m0, QJsonObject{{"interval", 3600},
                                                                   {"mode", "eco"},
                                                                   {"profile", QJsonObject{{"a", 1}}},
                                                                   {"list", QJsonArray{1, 2}}}},
                                                  {key_of(modem(2)), QJsonObject{{"interval", 5}}}}}});
    EXPECT_EQ(written, (QJsonObject{{m0, "ok"}}));

    EXPECT_EQ(call("read_setting", QJsonObject{{"modem_id", ids({modem(0), modem(2)})},
                                               {"settings", QJsonArray{"interval", "profile", "unknown"}}}),
              (QJsonObject{{m0, QJsonObject{{"interval", 3600},
                                            {"profile", QJsonObject{{"a", 1}}},
                                            {"unknown", QJsonValue()}}}}));
    EXPECT_EQ(call("read_setting", QJsonObject{{"modem_id", ids({modem(0)})}}),
              (QJsonObject{{m0, QJsonObject{{"interval", 3600},
                                            {"mode", "eco"},
                                            {"profile", QJsonObject{{"a", 1}}},
                                            {"list", QJsonArray{1, 2}}}}}));
    // A second write changes one setting and keeps the others.
    EXPECT_EQ(
        call("write_setting", QJsonObject{{"settings", QJsonObject{{m0, QJsonObject{{"mode", "fast"}}}}}}),
        (QJsonObject{{m0, "ok"}}));
    EXPECT_EQ(call("read_setting",
                   QJsonObject{{"modem_id", ids({modem(0)})}, {"settings", QJsonArray{"mode", "interval"}}}),
              (QJsonObject{{m0, QJsonObject{{"mode", "fast"}, {"interval", 3600}}}}));
    EXPECT_EQ(call("read_setting", QJsonObject{{"modem_id", ids({modem(1)})}}),
              (QJsonObject{{key_of(modem(1)), QJsonObject()}}));

    // A text is no number: the calibration is written as 0.
    EXPECT_EQ(
        call("write_calib",
             QJsonObject{
                 {"calibs",
                  QJsonObject{{m0, QJsonObject{{"volume", QJsonObject{{"factor", 1.5}, {"offset", "x"}}}}},
                              {key_of(modem(2)), QJsonObject{{"volume", QJsonObject{{"factor", 2}}}}}}}}),
        (QJsonObject{{m0, "ok"}}));
    EXPECT_EQ(
        call("write_calib",
             QJsonObject{{"calibs", QJsonObject{{m0, QJsonObject{{"temp", QJsonObject{{"factor", -2}}}}}}}}),
        (QJsonObject{{m0, "ok"}}));
    // The M-Bus driver knows "factor" and "offset" only: anything else is refused, unanswered.
    EXPECT_TRUE(unanswered(
        e2e::command("write_calib",
                     QJsonObject{{"calibs", QJsonObject{{m0, QJsonObject{{"temp", QJsonObject{{"k", 1}}}}}}}},
                     m_reply_key)));
    const QJsonObject calibrations{{m0, QJsonObject{{"volume", QJsonObject{{"factor", 1.5}, {"offset", 0}}},
                                                    {"temp", QJsonObject{{"factor", -2}}}}}};
    EXPECT_EQ(call("read_calib", QJsonObject{{"modem_id", ids({modem(0), modem(2)})}}), calibrations);
    EXPECT_EQ(call("read_calib", QJsonObject{{"modem_id", ids({modem(0)})}, {"calibs", QJsonArray{"temp"}}}),
              (QJsonObject{{m0, QJsonObject{{"temp", QJsonObject{{"factor", -2}}}}}}));
    EXPECT_EQ(call("read_calib", QJsonObject{{"modem_id", ids({modem(1)})}}), QJsonObject());

    const QJsonObject fail{{"status", "fail"}};
    EXPECT_EQ(call("read_setting", QJsonObject{{"settings", QJsonArray{"mode"}}}), fail);
    EXPECT_EQ(call("write_setting", QJsonObject{{"modem_id", ids({modem(0)})}}), fail);
    EXPECT_EQ(call("read_calib", QJsonObject{{"calibs", QJsonArray{"temp"}}}), fail);
    EXPECT_EQ(call("write_calib", QJsonObject{{"settings", QJsonObject()}}), fail);
}

// Both the request and its response are larger than one AMQP frame (128 KiB by default).
TEST_P(HistoryCommands, SettingLargerThanAFrameTravelsBothWays) {
    const QString m0 = key_of(modem(0));
    QString blob(400000, QChar('x'));
    blob[0] = 'a';
    blob[blob.size() - 1] = 'z';
    EXPECT_EQ(
        call("write_setting", QJsonObject{{"settings", QJsonObject{{m0, QJsonObject{{"blob", blob}}}}}}),
        (QJsonObject{{m0, "ok"}}));
    const QJsonObject read = call("read_setting", QJsonObject{{"modem_id", ids({modem(0)})}});
    EXPECT_EQ(read.value(m0).toObject().value("blob").toString(), blob);
}

TEST_P(HistoryCommands, TextsBeyondAsciiKeepTheirCharacters) {
    const QString m0 = key_of(modem(0));
    const QString text = QString::fromUtf8("Zürich 20 °C, 5 € \xe2\x9c\x93");
    EXPECT_EQ(
        call("write_setting", QJsonObject{{"settings", QJsonObject{{m0, QJsonObject{{"place", text}}}}}}),
        (QJsonObject{{m0, "ok"}}));
    EXPECT_EQ(
        call("read_setting", QJsonObject{{"modem_id", ids({modem(0)})}, {"settings", QJsonArray{"place"}}}),
        (QJsonObject{{m0, QJsonObject{{"place", text}}}}));
    const QJsonObject description =
        call("get_metadata", QJsonObject{{"hw_type", "X"}, {"protocol", "proto7"}});
    QString unit;
    for (const QJsonValue& entry : description) {
        if (entry.toObject().value("name").toString() == "flow_temperature") {
            unit = entry.toObject().value("unit").toString();
        }
    }
    EXPECT_EQ(unit, QString::fromUtf8("°C"));
}

TEST_P(HistoryCommands, ReparseResetsTheStateKeepingCalibrationsAndRequestsHistory) {
    const QString m0 = key_of(modem(0));
    const QString m1 = key_of(modem(1));
    ASSERT_EQ(
        call("write_setting", QJsonObject{{"settings", QJsonObject{{m0, QJsonObject{{"mode", "eco"}}},
                                                                   {m1, QJsonObject{{"mode", "eco"}}}}}}),
        (QJsonObject{{m0, "ok"}, {m1, "ok"}}));
    ASSERT_EQ(call("write_calib",
                   QJsonObject{
                       {"calibs", QJsonObject{{m0, QJsonObject{{"volume", QJsonObject{{"factor", 1.5}}}}}}}}),
              (QJsonObject{{m0, "ok"}}));
    e2e::probe netcore({"cmd.in.netcore"});
    ASSERT_TRUE(netcore.wait_ready());

    // Without "request" only the state is reset.
    EXPECT_EQ(call("reparse_modem", QJsonObject{{"modem_id", ids({modem(1)})}}), (QJsonObject{{m1, "ok"}}));
    EXPECT_EQ(call("read_setting", QJsonObject{{"modem_id", ids({modem(1)})}}),
              (QJsonObject{{m1, QJsonObject()}}));

    EXPECT_EQ(call("reparse_modem", QJsonObject{{"modem_id", ids({modem(0), modem(2), modem(1)})},
                                                {"from", 1000},
                                                {"to", 2000},
                                                {"request", true}}),
              (QJsonObject{{m0, "ok"}, {m1, "ok"}}));
    ASSERT_TRUE(wait_own_commands(netcore, 1));
    const std::vector<QJsonObject> commands = own_commands(netcore);
    // The reparse without "request" sent nothing before this one.
    ASSERT_EQ(commands.size(), 1u);
    EXPECT_EQ(commands.front().value("msg_type").toString(), "get_ul_history");
    EXPECT_FALSE(commands.front().contains("sharded"));
    EXPECT_EQ(commands.front().value("data").toObject(),
              (QJsonObject{{"api_key", api_key},
                           {"ids", ids({modem(0), modem(1)})},
                           {"from", 1000},
                           {"to", 2000},
                           {"limit", 10000000},
                           {"routing_key_prefix", "ul_history.marl2.proto7"}}));

    EXPECT_EQ(call("read_calib", QJsonObject{{"modem_id", ids({modem(0)})}}),
              (QJsonObject{{m0, QJsonObject{{"volume", QJsonObject{{"factor", 1.5}}}}}}));
    EXPECT_EQ(call("read_setting", QJsonObject{{"modem_id", ids({modem(0)})}}),
              (QJsonObject{{m0, QJsonObject()}}));
    EXPECT_EQ(call("reparse_modem", QJsonObject{{"modem_id", ids({modem(2)})}, {"request", true}}),
              QJsonObject());
}

INSTANTIATE_TEST_SUITE_P(Databases, HistoryCommands, e2e::database_plugins(), e2e::database_label);

class HistoryPrefixCommands : public e2e::service_test {
protected:
    void configure(e2e::service_process& service) override {
        service.set("GENERAL_SETTINGS", "R_HISTORY_PREFIX", "history.for.me");
        service.set_database("db_driver_dummy",
                             QJsonObject{{"devices", QJsonObject{{key_of(modem(0)), device("X")}}}});
    }
};

TEST_F(HistoryPrefixCommands, HistoryRequestCarriesTheConfiguredPrefixAndDefaultsToUpToNow) {
    e2e::probe netcore({"cmd.in.netcore"});
    ASSERT_TRUE(netcore.wait_ready());
    const qint64 before = QDateTime::currentSecsSinceEpoch();
    EXPECT_EQ(call("reparse_modem", QJsonObject{{"modem_id", ids({modem(0)})}, {"request", true}}),
              (QJsonObject{{key_of(modem(0)), "ok"}}));
    ASSERT_TRUE(wait_own_commands(netcore, 1));
    const QJsonObject data = own_commands(netcore).front().value("data").toObject();
    EXPECT_EQ(data.value("routing_key_prefix").toString(), "history.for.me");
    EXPECT_EQ(data.value("from").toVariant().toLongLong(), 0);
    EXPECT_GE(data.value("to").toVariant().toLongLong(), before);
    EXPECT_LE(data.value("to").toVariant().toLongLong(), QDateTime::currentSecsSinceEpoch());
    EXPECT_EQ(data.value("limit").toInt(), 10000000);
    EXPECT_EQ(data.value("ids"), QJsonValue(ids({modem(0)})));
}

}  // namespace
