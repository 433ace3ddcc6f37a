// quillon-netsim on the private broker: the service accepts its uplinks, each downlink
// is reported as queued, in process and executed (or failed), and a history request
// gets the kept uplinks published again.
#include <gtest/gtest.h>

#include <QDateTime>
#include <QJsonArray>
#include <QRandomGenerator>
#include <QTemporaryDir>

#include "netsim_process.h"
#include "tests/support/service_harness.h"

namespace {

// Modem ids no other test uses, so that what other runs on the shared broker publish
// does not mix in.
int unique_modem() {
    return 900000 + int(QRandomGenerator::global()->bounded(90000)) * 10;
}

QStringList types_of(const std::vector<e2e::received>& messages, const QString& key) {
    QStringList types;
    for (const e2e::received& m : messages) {
        if (m.routing_key == key) {
            types << m.json().value("msg_type").toString();
        }
    }
    return types;
}

class NetsimBroker : public ::testing::Test {
protected:
    void SetUp() override {
        m_log = std::make_unique<logger>(m_dir.filePath("test.log"), Debug, "test");
        m_sender = std::make_unique<e2e::sender>(*m_log);
        ASSERT_TRUE(m_sender->wait_ready());
    }

    // Sends a command to the network server's key and returns the "response" envelope.
    QJsonObject command(const QString& type, const QJsonObject& data, e2e::probe& replies,
                        const QString& reply_key) {
        const QJsonObject request = e2e::command(type, data, reply_key);
        const size_t before = replies.messages().size();
        m_sender->publish("cmd.in.netcore", request);
        if (!replies.wait_for(before + 1)) {
            ADD_FAILURE() << "no response to " << type.toStdString();
            return {};
        }
        const QJsonObject response = replies.messages().back().json();
        EXPECT_EQ(response.value("cmd_id").toString(), request.value("cmd_id").toString());
        return response;
    }

    // One "dl" for modem 77 with status_id "abc"; the reports seen on the modem's key.
    QStringList downlink_reports(const QStringList& netsim_arguments) {
        const QString instance = e2e::unique_name("netsim");
        const QString report_key = "nc.0.ul." + instance + ".proto7.77";
        const QString reply_key = e2e::unique_name("reply");
        e2e::probe reports({report_key});
        e2e::probe replies({reply_key});
        EXPECT_TRUE(reports.wait_ready());
        EXPECT_TRUE(replies.wait_ready());
        netsim_process netsim;
        EXPECT_TRUE(netsim.start(QStringList{"--modems", "0", "--instance", instance} + netsim_arguments));
        EXPECT_TRUE(netsim.wait_ready()) << netsim.standard_error().toStdString();

        const QJsonObject data{{"payload", "0102"},   {"api_key", "key"}, {"status_id", "abc"},
                               {"modem_id", 77},      {"f_ack", 1},       {"f_system", 0},
                               {"frequency", 0},      {"dl_phy", 63},     {"station_id", 0},
                               {"protocol", "proto7"}};
        const QJsonObject response = command("dl", data, replies, reply_key);
        EXPECT_EQ(response.value("msg_type").toString(), "response");
        EXPECT_EQ(response.value("data").toObject(), (QJsonObject{{"ok", true}}));

        EXPECT_TRUE(reports.wait_for(3));
        e2e::wait_until([] { return false; }, 500);  // nothing more may follow
        for (const e2e::received& m : reports.messages()) {
            EXPECT_EQ(m.json().value("status_id").toString(), "abc");
            EXPECT_EQ(m.json().value("modem_id").toInt(), 77);
        }
        netsim.interrupt();
        EXPECT_TRUE(netsim.wait_for_exit());
        EXPECT_EQ(netsim.exit_code(), 0);
        EXPECT_GE(netsim.summary_value("downlinks answered"), 1) << netsim.standard_output().toStdString();
        return types_of(reports.messages(), report_key);
    }

    QTemporaryDir m_dir;
    std::unique_ptr<logger> m_log;
    std::unique_ptr<e2e::sender> m_sender;
};

TEST_F(NetsimBroker, ServiceAcceptsTheUplinks) {
    // A route key of their own: no other service on the broker takes these uplinks.
    const QString route_key = e2e::unique_name("ul");
    e2e::service_process service;
    service.set("GENERAL_SETTINGS", "R_UL_ROUTE_KEY", route_key);
    ASSERT_TRUE(service.start()) << service.log().toStdString();
    const int modem = unique_modem();
    e2e::probe published({QString("null.#.%1").arg(modem), QString("null.#.%1").arg(modem + 1)});
    ASSERT_TRUE(published.wait_ready());

    netsim_process netsim;
    ASSERT_TRUE(netsim.start({"--count", "5", "--fast", "--modems", "2", "--first-modem",
                              QString::number(modem), "--ul-route-key", route_key}));
    ASSERT_TRUE(netsim.wait_for_exit()) << netsim.standard_error().toStdString();
    EXPECT_EQ(netsim.exit_code(), 0);
    EXPECT_EQ(netsim.summary_value("uplinks"), 5) << netsim.standard_output().toStdString();

    // Every uplink becomes a stored message published to the modem's (absent) clients.
    const auto rolls = [&] {
        int n = 0;
        for (const e2e::received& m : published.messages()) {
            n += m.routing_key.contains(".ul_roll.") ? 1 : 0;
        }
        return n;
    };
    ASSERT_TRUE(e2e::wait_until([&] { return rolls() >= 5; }, 30000)) << service.log().toStdString();
    QMap<QString, double> heat_values;
    for (const e2e::received& m : published.messages()) {
        const QJsonObject o = m.json();
        if (m.routing_key.contains(".ul_roll.")) {
            EXPECT_EQ(o.value("parse_status").toString(), "parsed") << m.payload.toStdString();
            EXPECT_TRUE(m.routing_key.startsWith("null.0.ul_roll.mbus-")) << m.routing_key.toStdString();
        } else if (o.value("modem_id").toInt() == modem) {
            heat_values[o.value("obis_code").toString()] = o.value("value").toDouble();
        }
    }
    EXPECT_EQ(rolls(), 5);
    for (const char* q : {"energy", "volume", "power", "flow_temperature", "return_temperature"}) {
        EXPECT_TRUE(heat_values.contains(q)) << q;
    }
    EXPECT_GT(heat_values.value("flow_temperature"), heat_values.value("return_temperature"));
    // The service's log names each accepted uplink: three of the first modem, two of the second.
    int accepted[2] = {0, 0};
    for (const QString& line : service.log().split('\n')) {
        for (int i : {0, 1}) {
            if (line.contains(" accepted: ") && line.contains(QString("\"modem_id\":%1,").arg(modem + i))) {
                ++accepted[i];
            }
        }
    }
    EXPECT_EQ(accepted[0], 3);
    EXPECT_EQ(accepted[1], 2);
}

TEST_F(NetsimBroker, DownlinkIsReportedQueuedInProcessExecuted) {
    EXPECT_EQ(downlink_reports({}), (QStringList{"dl_queued", "dl_inprocess", "dl_success"}));
}

TEST_F(NetsimBroker, DownlinkFaultRatioOneFailsEveryDownlink) {
    EXPECT_EQ(downlink_reports({"--dl-fault-ratio", "1"}),
              (QStringList{"dl_queued", "dl_inprocess", "dl_fault"}));
}

TEST_F(NetsimBroker, HistoryRequestPublishesTheKeptUplinksAgain) {
    const QString instance = e2e::unique_name("netsim");
    const int modem = unique_modem();
    const QString uplink_key = QString("nc.0.ul.%1.proto7.%2").arg(instance).arg(modem);
    const QString prefix = e2e::unique_name("history");
    const QString history_key = QString("nc.0.%1.%2").arg(prefix).arg(modem);
    const QString default_history_key = QString("nc.0.ul_history.%1.proto7.%2").arg(instance).arg(modem);
    const QString reply_key = e2e::unique_name("reply");
    e2e::probe uplinks({uplink_key});
    e2e::probe history({history_key, default_history_key});
    e2e::probe replies({reply_key});
    ASSERT_TRUE(uplinks.wait_ready() && history.wait_ready() && replies.wait_ready());

    netsim_process netsim;
    ASSERT_TRUE(netsim.start({"--modems", "1", "--first-modem", QString::number(modem), "--instance",
                              instance, "--count", "4", "--rate", "20", "--duration", "120"}));
    ASSERT_TRUE(netsim.wait_ready()) << netsim.standard_error().toStdString();
    ASSERT_TRUE(uplinks.wait_for(4));
    const qint64 first_time =
        uplinks.messages().front().json().value("time_detected").toVariant().toLongLong();

    // Everything in the range, on the prefix key, as it was first sent.
    const qint64 now = QDateTime::currentSecsSinceEpoch();
    QJsonObject request{{"api_key", "key"},   {"ids", QJsonArray{modem, modem + 1}},
                        {"from", first_time}, {"to", now + 60},
                        {"limit", 10000000},  {"routing_key_prefix", prefix}};
    EXPECT_EQ(command("get_ul_history", request, replies, reply_key).value("data").toObject().value("ok"),
              true);
    ASSERT_TRUE(history.wait_for(4));
    e2e::wait_until([] { return false; }, 500);
    ASSERT_EQ(history.messages().size(), 4u);
    for (size_t i = 0; i < 4; ++i) {
        EXPECT_EQ(history.messages()[i].routing_key, history_key);
        EXPECT_EQ(history.messages()[i].json(), uplinks.messages()[i].json());
    }

    // A range before the first uplink gives nothing; a limit cuts the answer short.
    history.clear();
    request["from"] = first_time - 100;
    request["to"] = first_time - 1;
    command("get_ul_history", request, replies, reply_key);
    request["from"] = first_time;
    request["to"] = now + 60;
    request["limit"] = 2;
    command("get_ul_history", request, replies, reply_key);
    ASSERT_TRUE(history.wait_for(2));
    e2e::wait_until([] { return false; }, 500);
    ASSERT_EQ(history.messages().size(), 2u);
    EXPECT_EQ(history.messages()[1].json(), uplinks.messages()[1].json());

    // Without a prefix, the uplink key with the history word.
    history.clear();
    request["routing_key_prefix"] = "";
    request["limit"] = 1;
    command("get_ul_history", request, replies, reply_key);
    ASSERT_TRUE(history.wait_for(1));
    EXPECT_EQ(history.messages()[0].routing_key, default_history_key);

    netsim.interrupt();
    ASSERT_TRUE(netsim.wait_for_exit());
    EXPECT_EQ(netsim.exit_code(), 0);
    EXPECT_EQ(netsim.summary_value("uplinks"), 4);
    EXPECT_GE(netsim.summary_value("history requests"), 4);
}

}  // namespace
