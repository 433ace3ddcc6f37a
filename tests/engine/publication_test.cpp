#include <gtest/gtest.h>
#include <QJsonDocument>

#include "engine/dl_sending.h"
#include "engine/publication.h"
#include "engine_fixture.h"

TEST(Publication, RoutingKeysOfTheThreeRecordKinds) {
    model::ul_message message;
    message.modem_id = 77;
    message.hw_type = "X";
    message.tag = "t";
    EXPECT_EQ(publication::roll_route(message, "c", 2), "c.2.ul_roll.X.t.null.77");

    model::dev_event event;
    event.event_code = 5;
    event.modem_id = 77;
    EXPECT_EQ(publication::event_route(message, event, "c", 2), "c.2.ul_eav.X.event.5.77");

    model::dev_value value;
    value.obis_code = "temp";
    value.tag = "system.heartbeat";
    value.modem_id = 77;
    EXPECT_EQ(publication::value_route(message, value, "c", 2), "c.2.ul_eav.X.system.heartbeat.temp.77");
}

TEST(Publication, PlaceholderInsideASubstitutedTextIsFilledLater) {
    // %4 brings in "%5", which the fifth substitution fills together with the template's own %5.
    EXPECT_EQ(publication::fill_route(publication::eav_template, {"c", "2", "X", "a%5b", "Q", "77"}),
              "c.2.ul_eav.X.aQb.Q.77");
}

TEST(Publication, RoutesOfUnusualTextsAreFilledAsBySuccessiveSubstitutions) {
    // Empty parts, a part holding "%", non-Latin text: the same as QString::arg one by one.
    const QStringList cases[] = {{"", "0", "", "", "", "0"},
                                 {"c", "2", "X%", "t", "%6", "77"},
                                 {"c%1", "2", "X", "t", "q", "77"},
                                 {"\u00e9", "2", "\u4e2d", "a.b", "1.8.0", "-5"}};
    for (const auto& parts : cases) {
        for (const char* route_template : {publication::roll_template, publication::eav_template}) {
            QString expected = route_template;
            for (const auto& part : parts)
                expected = expected.arg(part);
            EXPECT_EQ(publication::fill_route(route_template, parts), expected)
                << parts.join('|').toStdString();
        }
    }
    EXPECT_EQ(publication::fill_route(publication::roll_template, {"", "0", "", "", "", "0"}),
              ".0.ul_roll....0");
}

namespace {
struct route_recorder : publication_sink {
    void publish(const QByteArray&, const QString& routing_key, const QString&) override {
        routes.push_back(routing_key);
    }
    std::vector<QString> routes;
};
}  // namespace

// An uplink's publications, client by client, carry the routes that the successive
// substitutions give, also where a client, a type, a tag or a quantity holds a '%'.
TEST(Publication, UplinkRoutesForEveryClientAsBySuccessiveSubstitutions) {
    const QString hw_types[] = {"X", "X%3", "\u4e2d"};
    const QString tags[] = {"t", "a%5b", ""};
    for (const QString& hw_type : hw_types) {
        for (const QString& tag : tags) {
            model::ul_message stored;
            stored.modem_id = 77;
            stored.hw_type = hw_type;
            stored.tag = "roll";
            model::dev_event event;
            event.modem_id = 77;
            event.event_code = 5;
            model::dev_value value;
            value.modem_id = 78;  // a record's own modem is the one its route names
            value.tag = tag;
            value.obis_code = tag == "t" ? "energy%6" : "energy";
            const model::eav_list records{event, value};
            const QStringList clients{"c1", "c%2"};
            route_recorder sink;
            publication::publish_uplink(stored, records, clients, sink, false);

            std::vector<QString> expected;
            for (int index = 0; index < clients.size(); ++index) {
                const QString number = QString::number(index);
                const QStringList parts[] = {{clients[index], number, hw_type, "event", "5", "77"},
                                             {clients[index], number, hw_type, tag, value.obis_code, "78"},
                                             {clients[index], number, hw_type, "roll", "null", "77"}};
                for (int i = 0; i < 3; ++i) {
                    QString route = i < 2 ? publication::eav_template : publication::roll_template;
                    for (const QString& part : parts[i]) {
                        route = route.arg(part);
                    }
                    expected.push_back(route);
                }
            }
            EXPECT_EQ(sink.routes, expected) << hw_type.toStdString() << " " << tag.toStdString();
        }
    }
}

TEST(Publication, BodyIsTheRecordOrAnEnvelope) {
    const QJsonObject record{{"modem_id", 77}};
    EXPECT_EQ(publication::body(record, "quillon_ul_client_roll", false), QByteArray(R"({"modem_id":77})"));
    const QJsonObject envelope = QJsonDocument::fromJson(publication::body(record, "m", true)).object();
    EXPECT_EQ(envelope.value("msg_type").toString(), "m");
    EXPECT_EQ(envelope.value("data").toObject(), record);
    EXPECT_EQ(envelope.value("cmd_id").toString().size(), 38);  // {8-4-4-4-12}
}

TEST(Publication, EnvelopeIsWrittenAsQtWritesTheObject) {
    const QByteArray record = R"({"a":"\u0001","modem_id":77})";
    const QByteArray wrapped = publication::body(record, "quillon_ul_client_eav_value", true);
    // Parsed and written again by Qt, the text does not change: same key order, same form.
    EXPECT_EQ(QJsonDocument::fromJson(wrapped).toJson(QJsonDocument::Compact), wrapped);
    EXPECT_TRUE(wrapped.startsWith(R"({"cmd_id":"{)"));
    EXPECT_TRUE(wrapped.endsWith(
        R"(}","data":{"a":"\u0001","modem_id":77},"msg_type":"quillon_ul_client_eav_value"})"));
    EXPECT_NE(publication::body(record, "m", true), publication::body(record, "m", true));
    EXPECT_EQ(publication::body(record, "m", false), record);
}

TEST(DownlinkSending, PlaceholderSplicing) {
    const QByteArray marked = QByteArray::fromHex("0102") + "start_placeholder" + "0A0B" +
                              "stop_placeholder" + QByteArray::fromHex("03");
    EXPECT_EQ(dl_sending::splice_placeholders(marked), "01020A0B03");

    const QByteArray no_stop =
        QByteArray::fromHex("0102") + "start_placeholder" + "0A0B" + QByteArray::fromHex("03");
    // Marker text removed, the rest upper-case hex: "0A0B" is 30 41 30 42.
    EXPECT_EQ(dl_sending::splice_placeholders(no_stop), "01023041304203");

    EXPECT_EQ(dl_sending::splice_placeholders("start_placeholderAstop_placeholder"), "A");
    EXPECT_EQ(dl_sending::splice_placeholders(QByteArray::fromHex("ff")), "FF");
}

TEST_F(EngineFixture, RawDownlinkIsStoredAndSentToTheNetworkServer) {
    make_engine();
    model::dl_message message;
    message.modem_id = 77;
    message.dl_phy = 5;
    message.protocol = "proto7";
    const QJsonObject result = m_engine->sendDlmessageRAW(message, messages(), *m_api, QString());

    ASSERT_EQ(m_api->m_sent.size(), 1u);
    const auto& sent = m_api->m_sent[0];
    EXPECT_EQ(sent.type, "dl");
    EXPECT_EQ(sent.route, "cmd.in.netcore");
    EXPECT_EQ(sent.sharded, 77);
    EXPECT_EQ(sent.data.value("payload").toString(), "");  // empty payload, no override
    EXPECT_EQ(sent.data.value("api_key").toString(), "key1");
    EXPECT_EQ(sent.data.value("dl_phy").toInt(), 5);
    EXPECT_EQ(sent.data.value("protocol").toString(), "proto7");
    EXPECT_EQ(sent.data.keys().size(), 10);
    EXPECT_TRUE(result.value("ok").toBool());
    const QString id = result.value("bd_id").toString();
    EXPECT_EQ(sent.data.value("status_id").toString(), id);
    EXPECT_EQ(messages()->dl().get(id).modem_id, 77);
}

TEST_F(EngineFixture, ADownlinkTheDriverCannotBuildIsRefusedWithoutStoringOrSending) {
    clients()->set_device(77, {"proto7", "X", {}});
    m_driver->m_encode_error = "mbus downlink: unknown \"cmd\" \"open\"";
    make_engine();
    model::dl_message message;
    message.modem_id = 77;
    try {
        m_engine->sendDlmessage(message);
        ADD_FAILURE() << "no downlink_refused";
    } catch (const downlink_refused& e) {
        EXPECT_STREQ(e.what(), "mbus downlink: unknown \"cmd\" \"open\"");
    }
    EXPECT_TRUE(m_api->m_sent.empty());
    model::dl_query everything;
    everything.modem_id = {77};
    everything.from = QDateTime::fromSecsSinceEpoch(0);
    everything.to = QDateTime::currentDateTimeUtc().addDays(1);
    const auto found = messages()->dl().list(everything);
    EXPECT_TRUE(found.find(77) == found.end() || found.at(77).empty());
}

TEST_F(EngineFixture, DriverBuiltDownlinkSendsTheSplicedText) {
    clients()->set_device(77, {"proto7", "X", {}});
    m_driver->m_dl_bytes = QByteArray::fromHex("0102") + "start_placeholder" + "0A0B" + "stop_placeholder" +
                           QByteArray::fromHex("03");
    make_engine();
    model::dl_message message;
    message.modem_id = 77;
    const QJsonObject result = m_engine->sendDlmessage(message);

    ASSERT_EQ(m_api->m_sent.size(), 1u);
    EXPECT_EQ(m_api->m_sent[0].data.value("payload").toString(), "01020A0B03");
    const auto stored = messages()->dl().get(result.value("bd_id").toString());
    EXPECT_EQ(stored.payload, QByteArray::fromHex("01020A0B03"));
    EXPECT_NEAR(stored.ttl.toSecsSinceEpoch(), QDateTime::currentSecsSinceEpoch() + 365 * 86400, 5);
}
