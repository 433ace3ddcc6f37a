// Bad and hostile inputs against the real service on the SQLite store: malformed
// envelopes, mistyped keys, huge and repetitive lists, overflowing ids, odd uplinks.
// Each case checks what the service does with it (answer, log, store) and that it still
// serves afterwards. With QUILLON_BAD_INPUTS_REPORT=<file> every case also writes what
// was observed (answer, new Error/Warning lines, time) as one line of that file.
#include <QElapsedTimer>
#include <QFile>
#include <QProcessEnvironment>

#include "tests/e2e/e2e_fixture.h"

namespace {

using e2e::ids;
using e2e::key_of;

// What one input did.
struct outcome {
    bool answered = false;
    QJsonObject data;
    QStringList problems;  // new Error and Warning lines, text after the level
    qint64 ms = 0;
};

QString excerpt(const QString& text, int length = 160) {
    return text.size() > length ? text.left(length) + "..." : text;
}

class BadInputs : public e2e::service_test {
protected:
    void configure(e2e::service_process& service) override {
        service.set_database("db_driver_sqlite",
                             QJsonObject{{"path", m_dir.filePath("quillon.db")},
                                         {"purge_interval", 0},
                                         {"devices", QJsonObject{{key_of(modem(0)), device("X", {"c1"})}}}});
    }

    // Publishes a raw command body and waits for the get_info behind it (commands are
    // served one at a time in arrival order).
    outcome send_raw(const QString& name, const QByteArray& body) {
        const int lines_before = problem_lines().size();
        m_replies->clear();
        QElapsedTimer timer;
        timer.start();
        m_sender->publish_raw(m_service.command_key(), body);
        const QJsonObject info = exchange(e2e::command("get_info", {}, m_reply_key));
        outcome out;
        out.ms = timer.elapsed();
        EXPECT_FALSE(info.isEmpty()) << name.toStdString() << ": the service stopped answering";
        for (const e2e::received& message : m_replies->messages()) {
            const QJsonObject response = message.json();
            if (response.value("cmd_id") != info.value("cmd_id")) {
                out.answered = true;
                out.data = response.value("data").toObject();
            }
        }
        out.problems = problem_lines().mid(lines_before);
        report(name, out);
        return out;
    }

    outcome send(const QString& name, const QJsonObject& envelope) {
        return send_raw(name, QJsonDocument(envelope).toJson(QJsonDocument::Compact));
    }

    outcome call_with(const QString& name, const QString& type, const QJsonObject& data) {
        return send(name, e2e::command(type, data, m_reply_key));
    }

    // Publishes a raw uplink, then a good one of modem(0) behind it on the same queue;
    // once that is accepted, the bad one has been dealt with. `answered` tells whether the
    // bad one was accepted: its "accepted" line holds `marker`.
    outcome uplink_raw(const QString& name, const QByteArray& body, const QString& marker) {
        const int lines_before = problem_lines().size();
        QElapsedTimer timer;
        timer.start();
        m_sender->publish_raw(QString("nc.0.ul.marl2.proto7.%1").arg(modem(0)), body);
        publish_uplink(modem(0), e2e::volume_payload(1), ++m_iterator);
        EXPECT_TRUE(accepted(modem(0), ++m_good_uplinks)) << name.toStdString();
        outcome out;
        out.ms = timer.elapsed();
        e2e::wait_until([] { return false; }, 200);  // lines of the same burst
        for (const QString& line : m_service.log().split('\n')) {
            if (line.contains(" accepted: ") && line.contains(marker)) {
                out.answered = true;
            }
        }
        out.problems = problem_lines().mid(lines_before);
        report(name, out);
        return out;
    }

    // A JSON uplink marked by a station id of its own.
    outcome uplink(const QString& name, QJsonObject message) {
        message["station_id"] = ++m_station;
        return uplink_raw(name, QJsonDocument(message).toJson(QJsonDocument::Compact),
                          QString("\"station_id\":%1").arg(m_station));
    }

    QJsonObject ul_app(int modem_id, const QJsonValue& payload = e2e::volume_payload(7)) const {
        return QJsonObject{{"msg_type", "ul_app"}, {"modem_id", modem_id},
                           {"protocol", "proto7"}, {"hw_type", "X"},
                           {"payload", payload},   {"iterator", 1},
                           {"station_id", 5},      {"time_detected", e2e::detected_at}};
    }

    QStringList problem_lines() const {
        QStringList lines;
        for (const QString& line : m_service.log().split('\n')) {
            const int at = line.indexOf(QRegularExpression(" (Error|Warning) "));
            if (at >= 0) {
                lines << line.mid(at + 1);
            }
        }
        return lines;
    }

    void report(const QString& name, const outcome& out) {
        const QString path = QProcessEnvironment::systemEnvironment().value("QUILLON_BAD_INPUTS_REPORT");
        if (path.isEmpty()) {
            return;
        }
        QFile file(path);
        if (!file.open(QIODevice::Append)) {
            return;
        }
        const QString data =
            out.answered ? excerpt(QString::fromUtf8(QJsonDocument(out.data).toJson(QJsonDocument::Compact)))
                         : QString("-");
        QStringList problems;
        for (const QString& line : out.problems.mid(0, 3)) {
            problems << excerpt(line, 200);
        }
        if (out.problems.size() > 3) {
            problems << QString("(%1 lines in all)").arg(out.problems.size());
        }
        file.write(QString("%1\t%2\t%3\t%4 ms\n").arg(name, data, problems.join(" | ")).arg(out.ms).toUtf8());
    }

    static QJsonArray repeated(int id, int times) {
        QJsonArray array;
        for (int i = 0; i < times; ++i) {
            array.append(id);
        }
        return array;
    }

    static QJsonArray counting(int first, int count) {
        QJsonArray array;
        for (int i = 0; i < count; ++i) {
            array.append(first + i);
        }
        return array;
    }

    int m_iterator = 100;
    int m_station = 7000;
    int m_good_uplinks = 0;
};

bool mentions(const outcome& out, const QString& text) {
    for (const QString& line : out.problems) {
        if (line.contains(text)) {
            return true;
        }
    }
    return false;
}

}  // namespace

TEST_F(BadInputs, MalformedEnvelopesAreRejectedWithOneErrorLine) {
    outcome out = send_raw("envelope: not JSON", "this is not json");
    EXPECT_FALSE(out.answered);
    EXPECT_TRUE(mentions(out, "error while parse income message : does not exist"));

    out = send_raw("envelope: a JSON array", "[1, 2, 3]");
    EXPECT_FALSE(out.answered);
    EXPECT_EQ(out.problems.size(), 1);

    out = send("envelope: unknown command", e2e::command("get_inf", {}, m_reply_key));
    EXPECT_FALSE(out.answered);
    EXPECT_TRUE(mentions(out, "get_inf does not exist"));

    out = send(
        "envelope: msg_type a number",
        QJsonObject{{"msg_type", 5}, {"cmd_id", QUuid::createUuid().toString()}, {"sender", m_reply_key}});
    EXPECT_FALSE(out.answered);

    QJsonObject no_sender = e2e::command("get_info", {}, m_reply_key);
    no_sender.remove("sender");
    out = send("envelope: no sender", no_sender);
    EXPECT_FALSE(out.answered);
    EXPECT_TRUE(out.problems.isEmpty());

    QJsonObject bad_id = e2e::command("get_info", {}, m_reply_key);
    bad_id["cmd_id"] = "not-a-uuid";
    out = send("envelope: cmd_id not a UUID", bad_id);
    EXPECT_TRUE(out.answered);

    QJsonObject array_data = e2e::command("get_roll", {}, m_reply_key);
    array_data["data"] = QJsonArray{1, 2};
    out = send("get_roll: data is an array", array_data);
    EXPECT_TRUE(out.answered);
    EXPECT_TRUE(out.data.isEmpty());
    EXPECT_TRUE(mentions(out, "get_roll: the command body is not a JSON object"));

    QJsonObject string_data = e2e::command("get_roll", {}, m_reply_key);
    string_data["data"] = "modem 77";
    out = send("get_roll: data is a string", string_data);
    EXPECT_TRUE(out.answered);
    EXPECT_TRUE(out.data.isEmpty());

    const QString mebibyte(1 << 20, QChar('a'));
    out = call_with("get_info: 1 MiB of data", "get_info", QJsonObject{{"junk", mebibyte}});
    EXPECT_TRUE(out.answered);
    EXPECT_TRUE(out.data.contains("proto7:marl2"));
}

TEST_F(BadInputs, HostileModemListsAreReadOnceAndCostOneLine) {
    outcome out = call_with("get_roll: modem_id a string", "get_roll", QJsonObject{{"modem_id", "77"}});
    EXPECT_TRUE(out.answered);
    EXPECT_TRUE(mentions(out, "\"modem_id\" is not an array"));

    out = call_with(
        "get_roll: ids beyond int32, fractions, texts", "get_roll",
        QJsonObject{{"modem_id", QJsonArray{2147483648.0, -2147483649.0, 1.5, "3", true, QJsonValue()}}});
    EXPECT_TRUE(out.answered);
    EXPECT_TRUE(out.data.isEmpty());
    EXPECT_EQ(out.problems.size(), 6);

    QJsonArray strings;
    for (int i = 0; i < 100000; ++i) {
        strings.append("x");
    }
    out = call_with("get_roll: 100000 ids that are texts", "get_roll", QJsonObject{{"modem_id", strings}});
    EXPECT_TRUE(out.answered);
    EXPECT_EQ(out.problems.size(), 11);  // ten named, one count
    EXPECT_TRUE(mentions(out, "99990 more ids"));

    publish_uplink(modem(0), e2e::volume_payload(5), ++m_iterator);
    ASSERT_TRUE(accepted(modem(0), ++m_good_uplinks));
    out = call_with("get_roll: one modem listed 100000 times", "get_roll",
                    QJsonObject{{"modem_id", repeated(modem(0), 100000)}});
    EXPECT_EQ(out.data.value(key_of(modem(0))).toArray().size(), m_good_uplinks);
    EXPECT_TRUE(mentions(out, "lists 99999 ids a second time"));

    out = call_with("request_roll: one modem listed 1000 times", "request_roll",
                    QJsonObject{{"modem_id", repeated(modem(0), 1000)}});
    EXPECT_EQ(out.data, (QJsonObject{{key_of(modem(0)), "ok"}}));

    out = call_with("get_roll: 10^6 modem ids", "get_roll", QJsonObject{{"modem_id", counting(1, 1000000)}});
    EXPECT_TRUE(out.answered);
    EXPECT_TRUE(mentions(out, "\"modem_id\" lists 1000000 ids, only the first 300000 are read"));

    out = call_with("send_dl_msg: 10^6 foreign modem ids", "send_dl_msg",
                    QJsonObject{{"modem_id", counting(1, 1000000)}, {"data", QJsonObject{{"cmd", 1}}}});
    EXPECT_TRUE(out.answered);
    EXPECT_TRUE(out.data.isEmpty());

    QJsonObject all{{"action", "get"}, {"modem_id", counting(1, 100000)}};
    out = call_with("dl_queue: all over 100000 modems", "dl_queue", QJsonObject{{"all", all}});
    EXPECT_TRUE(out.answered);
}

TEST_F(BadInputs, LimitsTimesAndMistypedKeys) {
    for (int i = 0; i < 3; ++i) {
        publish_uplink(modem(0), e2e::volume_payload(10 + i), ++m_iterator, e2e::detected_at + i);
    }
    ASSERT_TRUE(accepted(modem(0), m_good_uplinks += 3));
    const QJsonArray own = ids({modem(0)});

    outcome out = call_with("get_roll: limit -1", "get_roll", QJsonObject{{"modem_id", own}, {"limit", -1}});
    EXPECT_EQ(out.data.value(key_of(modem(0))).toArray().size(), 3);
    out = call_with("get_roll: limit 0", "get_roll", QJsonObject{{"modem_id", own}, {"limit", 0}});
    EXPECT_EQ(out.data.value(key_of(modem(0))).toArray().size(), 3);
    out = call_with("get_roll: limit 1e12", "get_roll", QJsonObject{{"modem_id", own}, {"limit", 1e12}});
    EXPECT_EQ(out.data.value(key_of(modem(0))).toArray().size(), 3);
    out = call_with("get_roll: limit \"5\" (a text)", "get_roll",
                    QJsonObject{{"modem_id", own}, {"limit", "5"}});
    EXPECT_EQ(out.data.value(key_of(modem(0))).toArray().size(), 3);
    out = call_with("get_roll: from after to", "get_roll",
                    QJsonObject{{"modem_id", own}, {"from", 2000000000}, {"to", 1000000000}});
    EXPECT_TRUE(out.data.isEmpty());
    out = call_with("get_roll: from \"yesterday\"", "get_roll",
                    QJsonObject{{"modem_id", own}, {"from", "yesterday"}});
    EXPECT_EQ(out.data.value(key_of(modem(0))).toArray().size(), 3);
    out = call_with("get_roll: to -1e300", "get_roll", QJsonObject{{"modem_id", own}, {"to", -1e300}});
    EXPECT_EQ(out.data.value(key_of(modem(0))).toArray().size(), 3);  // unusable: now
    out = call_with("get_eav_value: step -5 and 1e12", "get_eav_value",
                    QJsonObject{{"modem_id", own}, {"step", 1e12}, {"obis_codes", "volume"}});
    EXPECT_TRUE(out.answered);
    out = call_with("get_eav_value: time_detected of a record as from and to", "get_eav_value",
                    QJsonObject{{"modem_id", own}, {"from", e2e::detected_at}, {"to", e2e::detected_at}});
    EXPECT_EQ(out.data.value(key_of(modem(0))).toArray().size(), 1);

    out = call_with("send_dl_msg: no data", "send_dl_msg", QJsonObject{{"modem_id", own}});
    EXPECT_EQ(out.data, (QJsonObject{{"status", "fail"}}));
    out = call_with("send_dl_msg: status 7", "send_dl_msg",
                    QJsonObject{{"modem_id", own}, {"data", QJsonObject{{"cmd", 1}}}, {"status", 7}});
    const QString db_id = out.data.value(key_of(modem(0))).toObject().value("bd_id").toString();
    EXPECT_TRUE(mentions(out, "\"status\" 7 is not a dl status"));
    out = call_with("status_dl_msg: of that downlink", "status_dl_msg",
                    QJsonObject{{"db_id", QJsonArray{db_id}}});
    EXPECT_EQ(out.data.value(db_id).toObject().value("dl_status"), QJsonValue("PENDING"));
    out = call_with("send_dl_msg: timeout -5", "send_dl_msg",
                    QJsonObject{{"modem_id", own}, {"data", QJsonObject{{"cmd", 1}}}, {"timeout", -5}});
    const QString short_lived = out.data.value(key_of(modem(0))).toObject().value("bd_id").toString();
    out = call_with("status_dl_msg: of the timeout -5 downlink", "status_dl_msg",
                    QJsonObject{{"db_id", QJsonArray{short_lived}}});
    out = call_with(
        "send_dl_msg: payload not hex, 1 MiB", "send_dl_msg",
        QJsonObject{
            {"modem_id", own}, {"data", QJsonObject{{"cmd", 1}}}, {"payload", QString(1 << 20, QChar('z'))}});
    EXPECT_TRUE(out.answered);
    out = call_with("status_dl_msg: unknown id", "status_dl_msg", QJsonObject{{"db_id", QJsonArray{"nope"}}});
    EXPECT_EQ(out.data, (QJsonObject{{"nope", "dl message nope not found"}}));
    out = call_with("status_dl_msg: db_id a string", "status_dl_msg", QJsonObject{{"db_id", "nope"}});
    EXPECT_TRUE(out.answered);
    out = call_with("dl_queue: limit -1 in an admin listing", "dl_queue",
                    QJsonObject{{"admin", true}, {"mode", "modem_list"}, {"limit", -1}});
    EXPECT_TRUE(out.answered);
    out = call_with("dl_queue: mode a number", "dl_queue",
                    QJsonObject{{"mode", 5}, {key_of(modem(0)), QJsonObject{{"action", "get"}}}});
    EXPECT_TRUE(out.answered);
    out = call_with("dl_queue: queue value not an object", "dl_queue",
                    QJsonObject{{key_of(modem(0)), QJsonObject{{"action", "create"}, {"q", 5}}}});
    EXPECT_TRUE(out.answered);
    out = call_with("write_setting: modem value not an object", "write_setting",
                    QJsonObject{{key_of(modem(0)), "x"}});
    EXPECT_TRUE(out.answered);
    out = call_with("reparse_modem: no modem_id", "reparse_modem", QJsonObject{});
    EXPECT_TRUE(out.answered);
    out =
        call_with("get_metadata: an app_id with path separators", "get_metadata",
                  QJsonObject{{"app_id", "../../../etc/passwd#"}, {"hw_type", "X"}, {"protocol", "proto7"}});
    EXPECT_EQ(out.data, QJsonObject());
}

TEST_F(BadInputs, OddUplinks) {
    outcome out = uplink_raw("uplink: not JSON", "not json at all", "accepted: {}");
    EXPECT_FALSE(out.answered);
    out = uplink_raw("uplink: a JSON array", "[1,2]", "accepted: {}");
    EXPECT_FALSE(out.answered);
    out = uplink("uplink: unknown msg_type", QJsonObject{{"msg_type", "ul_xyz"}, {"modem_id", modem(0)}});
    EXPECT_FALSE(out.answered);
    QJsonObject text_id = ul_app(modem(0));
    text_id["modem_id"] = "abc";
    out = uplink("uplink: modem_id a text", text_id);
    QJsonObject big_id = ul_app(modem(0));
    big_id["modem_id"] = 2147483648.0;
    out = uplink("uplink: modem_id 2^31", big_id);
    out = uplink("uplink: modem_id -2^31", ul_app(-2147483647 - 1));
    EXPECT_TRUE(out.answered);
    out = uplink("uplink: payload not hex", ul_app(modem(0), "zz-not-hex"));
    EXPECT_TRUE(out.answered);  // stored with an empty payload
    out = uplink("uplink: payload 1 MiB of hex", ul_app(modem(0), QString(1 << 20, QChar('0'))));
    EXPECT_TRUE(out.answered);
    QJsonObject no_protocol = ul_app(modem(0));
    no_protocol.remove("protocol");
    out = uplink("uplink: no protocol", no_protocol);
    QJsonObject far_time = ul_app(modem(0));
    far_time["time_detected"] = -1e18;
    out = uplink("uplink: time_detected -1e18", far_time);
    QJsonObject text_numbers = ul_app(modem(0));
    text_numbers["iterator"] = "x";
    text_numbers["rssi"] = "loud";
    out = uplink("uplink: texts for numbers", text_numbers);
    out = uplink("uplink: dl_success of an unknown downlink",
                 QJsonObject{{"msg_type", "dl_success"}, {"modem_id", modem(0)}, {"status_id", "nope"}});
    EXPECT_FALSE(out.answered);
    EXPECT_TRUE(mentions(out, "dl message nope not found"));
    out = uplink("uplink: heartbeat with texts for numbers", QJsonObject{{"msg_type", "ul_hb"},
                                                                         {"modem_id", modem(0)},
                                                                         {"temperature", "hot"},
                                                                         {"voltage", "x"},
                                                                         {"protocol", "proto7"},
                                                                         {"hw_type", "X"}});
    const outcome roll = call_with("get_roll: modem -2^31 after its uplink", "get_roll",
                                   QJsonObject{{"modem_id", ids({-2147483647 - 1})}});
    EXPECT_EQ(roll.data.value("-2147483648").toArray().size(), 1);
    // The uplink readers take a modem id that is not an int32 as 0.
    const outcome zero = call_with("get_roll: modem 0 after uplinks of modem \"abc\" and 2^31", "get_roll",
                                   QJsonObject{{"modem_id", ids({0})}});
    EXPECT_EQ(zero.data.value("0").toArray().size(), 2);
    EXPECT_TRUE(m_service.running());
}
