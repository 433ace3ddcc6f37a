// The conversions of quillon-cli and the lines of quillon-watch, without a broker.
#include <gtest/gtest.h>
#include <QDateTime>
#include <QJsonArray>
#include <QJsonDocument>

#include "tools/cli/dead_letter.h"
#include "tools/cli/json_printer.h"
#include "tools/cli/request_body.h"
#include "tools/cli/tool_support.h"
#include "tools/watch/publication_line.h"

namespace {

TEST(RequestBody, TimesAreSecondsOrIsoDatesInUtcUnlessZoned) {
    EXPECT_EQ(cli::parse_time("1767225600", "from"), 1767225600);
    EXPECT_EQ(cli::parse_time("0", "from"), 0);
    EXPECT_EQ(cli::parse_time("2026-01-01", "from"), 1767225600);
    EXPECT_EQ(cli::parse_time("2026-01-01T10:00:00", "from"), 1767225600 + 36000);
    EXPECT_EQ(cli::parse_time("2026-01-01 10:00:00", "from"), 1767225600 + 36000);
    EXPECT_EQ(cli::parse_time("2026-01-01T10:00:00Z", "from"), 1767225600 + 36000);
    EXPECT_EQ(cli::parse_time("2026-01-01T10:00:00+02:00", "from"), 1767225600 + 28800);
    EXPECT_THROW(cli::parse_time("2026-13-01", "to"), tool::usage_error);
    EXPECT_THROW(cli::parse_time("", "to"), tool::usage_error);
}

TEST(RequestBody, ModemsAndTextsFromRepeatedAndCommaSeparatedValues) {
    EXPECT_EQ(cli::parse_modems({"77", "78, 79"}), (QJsonArray{77, 78, 79}));
    EXPECT_THROW(cli::parse_modems({"-1"}), tool::usage_error);
    EXPECT_THROW(cli::parse_modems({"7.5"}), tool::usage_error);
    EXPECT_EQ(cli::parse_texts({"volume,energy", "power"}), (QJsonArray{"volume", "energy", "power"}));
}

TEST(RequestBody, AssignmentsReadJsonValuesAndKeepOtherTextsAsStrings) {
    EXPECT_EQ(cli::parse_assignment("request=true"), (QJsonObject{{"request", true}}));
    EXPECT_EQ(cli::parse_assignment("n=42"), (QJsonObject{{"n", 42}}));
    EXPECT_EQ(cli::parse_assignment("hw_type=X"), (QJsonObject{{"hw_type", "X"}}));
    EXPECT_EQ(cli::parse_assignment("id=\"42\""), (QJsonObject{{"id", "42"}}));
    EXPECT_EQ(cli::parse_assignment("db_id=[\"a\",\"b\"]"), (QJsonObject{{"db_id", QJsonArray{"a", "b"}}}));
    EXPECT_EQ(cli::parse_assignment("empty="), (QJsonObject{{"empty", ""}}));
    EXPECT_EQ(cli::parse_assignment("eq=a=b"), (QJsonObject{{"eq", "a=b"}}));
    EXPECT_THROW(cli::parse_assignment("=1"), tool::usage_error);
}

// x-death as the broker writes it: newest death first, each with the keys it had then.
TEST(DeadLetter, TheOriginalRouteIsTheFirstDeathsExchangeAndFirstKey) {
    const QVariantMap newest{{"exchange", "norvik.api"},
                             {"routing-keys", QVariantList{"nc.0.ul.marl2.proto7.77", "cc.key"}},
                             {"queue", "ul_proto7_marl2_0from1"},
                             {"reason", "rejected"},
                             {"count", qlonglong(2)}};
    const QVariantMap older{{"exchange", "elsewhere"}, {"routing-keys", QVariantList{"old.key"}}};
    const auto origin = cli::original_route({{"x-death", QVariantList{newest, older}}, {"other", 1}});
    ASSERT_TRUE(origin.found) << origin.why_not.toStdString();
    EXPECT_EQ(origin.routing_key, "nc.0.ul.marl2.proto7.77");
    EXPECT_EQ(origin.exchange, "norvik.api");

    // A key sent as a byte array (AMQP 'x') is taken as text too.
    const QVariantMap bytes{{"routing-keys", QVariantList{QByteArray("a.b")}}};
    EXPECT_EQ(cli::original_route({{"x-death", QVariantList{bytes}}}).routing_key, "a.b");
}

TEST(DeadLetter, HeadersThatDoNotNameTheKeyAreReportedNotGuessed) {
    const auto none = cli::original_route({});
    EXPECT_FALSE(none.found);
    EXPECT_EQ(none.why_not, "no x-death header");
    EXPECT_FALSE(cli::original_route({{"x-death", "text"}}).found);
    EXPECT_FALSE(cli::original_route({{"x-death", QVariantList{}}}).found);
    EXPECT_FALSE(cli::original_route({{"x-death", QVariantList{QVariant(5)}}}).found);
    const QVariantMap no_keys{{"exchange", "norvik.api"}, {"routing-keys", QVariantList{}}};
    const auto empty = cli::original_route({{"x-death", QVariantList{no_keys}}});
    EXPECT_FALSE(empty.found);
    EXPECT_EQ(empty.why_not, "the first x-death entry has no routing-keys");
    const QVariantMap number_key{{"routing-keys", QVariantList{42}}};
    EXPECT_FALSE(cli::original_route({{"x-death", QVariantList{number_key}}}).found);
}

TEST(JsonPrinter, IndentsLikeQtAndColoursOnlyWhenAsked) {
    const QJsonObject data{{"77", QJsonArray{QJsonObject{{"value", 12.345}, {"ok", true}}, QJsonValue()}},
                           {"text", "a\"b"}};
    EXPECT_EQ(cli::format_json(data, false) + "\n", QString::fromUtf8(QJsonDocument(data).toJson()));
    // Empty containers stay on one line.
    EXPECT_EQ(cli::format_json(QJsonObject{{"e", QJsonObject{}}, {"a", QJsonArray{}}}, false),
              "{\n    \"a\": [],\n    \"e\": {}\n}");
    const QString coloured = cli::format_json(data, true);
    EXPECT_TRUE(coloured.contains("\x1b[33m12.345\x1b[0m")) << coloured.toStdString();
    EXPECT_TRUE(coloured.contains("\x1b[32m\"a\\\"b\"\x1b[0m")) << coloured.toStdString();
    EXPECT_EQ(cli::format_json(QJsonObject{}, true), "{}");
}

const QDateTime arrival(QDate(2026, 3, 1), QTime(12, 30, 5));

TEST(PublicationLine, ValuesEventsAndRollsPlainAndWrapped) {
    const QJsonObject value{{"modem_id", 77}, {"obis_code", "volume"}, {"value", 12.345}, {"tag", "mbus"}};
    const QString key = "c1.0.ul_eav.X.mbus.volume.77";
    const QString expected = "2026-03-01 12:30:05  " + key + "  modem 77  volume = 12.345";
    EXPECT_EQ(watch::describe(QJsonDocument(value).toJson(), key, arrival), expected);
    const QJsonObject wrapped{
        {"msg_type", "quillon_ul_client_eav_value"}, {"cmd_id", "{x}"}, {"data", value}};
    EXPECT_EQ(watch::describe(QJsonDocument(wrapped).toJson(), key, arrival), expected);

    QJsonObject with_unit = value;
    with_unit["unit"] = "m3";
    EXPECT_TRUE(
        watch::describe(QJsonDocument(with_unit).toJson(), key, arrival).endsWith("volume = 12.345 m3"));

    const QJsonObject event{{"modem_id", 77}, {"event_code", 4}, {"message", "power low"}, {"parameter", 4}};
    EXPECT_TRUE(watch::describe(QJsonDocument(event).toJson(), "c1.0.ul_eav.X.event.4.77", arrival)
                    .endsWith("  modem 77  event 4: power low"));

    const QJsonObject roll{{"modem_id", 78}, {"tag", "mbus"}, {"parse_status", "parsed"}, {"payload", "78"}};
    const QJsonObject wrapped_roll{{"msg_type", "quillon_ul_client_roll"}, {"cmd_id", "{x}"}, {"data", roll}};
    EXPECT_TRUE(watch::describe(QJsonDocument(wrapped_roll).toJson(), "c1.0.ul_roll.X.mbus.null.78", arrival)
                    .endsWith("  modem 78  roll tag mbus, parse_status parsed"));
}

// The units of get_metadata's parameter description go after the values they name; the
// record's own unit wins, and a name the description lacks stays without one.
TEST(PublicationLine, UnitsComeFromTheDriversMetadata) {
    const QJsonObject metadata{
        {"par3", QJsonObject{{"name", "volume"}, {"unit", "m3"}, {"comment", "volume"}}},
        {"par40", QJsonObject{{"name", "energy"}, {"unit", "Wh"}}},
        {"par41", QJsonObject{{"name", "counter"}, {"unit", ""}}},
        {"event4", QJsonObject{{"name", "power_low"}, {"code", 4}}},
        {"ctrl1", QJsonObject{{"name", "raw_downlink"}}},
    };
    const watch::unit_table units(metadata);
    EXPECT_EQ(units.size(), 2);
    const auto line = [&](const QJsonObject& value) {
        return watch::describe(QJsonDocument(value).toJson(), "c1.0.ul_eav.X.mbus.x.77", arrival, units);
    };
    EXPECT_TRUE(line({{"modem_id", 77}, {"obis_code", "energy"}, {"value", 14136535}})
                    .endsWith("  modem 77  energy = 14136535 Wh"));
    EXPECT_TRUE(line({{"modem_id", 77}, {"obis_code", "volume"}, {"value", 12.345}, {"unit", "l"}})
                    .endsWith("volume = 12.345 l"));
    EXPECT_TRUE(line({{"modem_id", 77}, {"obis_code", "counter"}, {"value", 3}}).endsWith("counter = 3"));
    EXPECT_TRUE(line({{"modem_id", 77}, {"obis_code", "temp"}, {"value", 21.5}}).endsWith("temp = 21.5"));
    EXPECT_TRUE(watch::unit_table(QJsonObject{}).empty());
}

TEST(PublicationLine, UnknownBodiesAreShownAsTheyAre) {
    EXPECT_EQ(watch::describe("not json", "a.b.77", arrival),
              "2026-03-01 12:30:05  a.b.77  (not a JSON object) not json");
    // No modem_id: the routing key's last part.
    EXPECT_EQ(watch::describe("{\"x\":1}", "a.b.77", arrival),
              "2026-03-01 12:30:05  a.b.77  modem 77  {\"x\":1}");
}

}  // namespace
