#include <gtest/gtest.h>
#include <QJsonArray>

#include "command_fixture.h"
#include "commands/metadata_file.h"

using command_test::CommandFixture;

// ---- get_ids -------------------------------------------------------------------------

TEST(GetIDs, WildcardsPassBothFiltersAndKeepTheirTexts) {
    CommandFixture f;
    const QJsonObject reply = f.run("get_ids", QJsonObject{{"hw_type", "*"}, {"protocol", "*"}});
    EXPECT_EQ(reply, (QJsonObject{{"*:*", QJsonArray{1, 2, 3, 9, 10}}}));
}

TEST(GetIDs, ExactPairAsksTheStoreForThatPair) {
    CommandFixture f;
    EXPECT_EQ(f.run("get_ids", QJsonObject{{"hw_type", "marl2"}, {"protocol", "proto7"}}),
              (QJsonObject{{"proto7:marl2", QJsonArray{1, 2, 3}}}));
    // The pattern matches ignoring case; the registry holds "MARL3" only for modem 10.
    EXPECT_EQ(f.run("get_ids", QJsonObject{{"hw_type", "MARL3"}, {"protocol", "*"}}),
              (QJsonObject{{"*:MARL3", QJsonArray{10}}}));
}

TEST(GetIDs, MissingKeysOrFailedFiltersAnswerEmpty) {
    CommandFixture f;
    EXPECT_EQ(f.run("get_ids", QJsonObject{{"hw_type", "*"}}), QJsonObject());
    EXPECT_EQ(f.run("get_ids", QJsonObject{{"protocol", "*"}}), QJsonObject());
    EXPECT_EQ(f.run("get_ids", QJsonObject{{"hw_type", "marl22"}, {"protocol", "*"}}), QJsonObject());
    EXPECT_EQ(f.run("get_ids", QJsonObject{{"hw_type", "*"}, {"protocol", "Proto7"}}), QJsonObject());
    EXPECT_EQ(f.run("get_ids", QJsonDocument(QJsonArray{1})), QJsonObject());
}

// ---- custom_request ------------------------------------------------------------------

TEST(CustomRequest, AnotherInstanceAnswersEmptyWithoutTheDriver) {
    CommandFixture f;
    EXPECT_EQ(f.run("custom_request", QJsonObject{{"instance", "proto7_other"}, {"modem_id", QJsonArray{1}}}),
              QJsonObject());
    EXPECT_TRUE(f.driver->m_custom_queries.empty());
}

TEST(CustomRequest, OwnInstanceNameIsAnswered) {
    CommandFixture f;
    f.context->pm_config.instance_names = QStringList{"first", "marl2"};
    const QJsonObject body{{"instance", "proto7_marl2"}, {"type", "t"}, {"query", QJsonObject{{"a", "1"}}}};
    EXPECT_EQ(f.run("custom_request", body), (QJsonObject{{"answered", 1}}));
    ASSERT_EQ(f.driver->m_custom_queries.size(), 1u);
    EXPECT_EQ(f.driver->m_custom_queries[0].type, "t");
    EXPECT_EQ(f.driver->m_custom_queries[0].query.at("a"), "1");
}

TEST(CustomRequest, WithoutInstanceOnlyOwnModemsReachTheDriver) {
    CommandFixture f;
    // "x" and 2^40 are not modem ids; 9 belongs to another protocol.
    const QJsonArray ids{1, 9, "x", 1099511627776.0, 2};
    EXPECT_EQ(f.run("custom_request", QJsonObject{{"modem_id", ids}}), (QJsonObject{{"answered", 1}}));
    ASSERT_EQ(f.driver->m_custom_queries.size(), 1u);
    EXPECT_EQ(f.driver->m_custom_queries[0].modem_id, (QList<int>{1, 2}));
    EXPECT_TRUE(f.log_text().contains("modem id 'x'"));
}

TEST(CustomRequest, WithoutInstanceAndWithoutOwnModemsAnswersEmpty) {
    CommandFixture f;
    EXPECT_EQ(f.run("custom_request", QJsonObject{{"modem_id", QJsonArray{9, 4}}}), QJsonObject());
    EXPECT_EQ(f.run("custom_request", QJsonObject{{"modem_id", QJsonArray{}}}), QJsonObject());
    EXPECT_EQ(f.run("custom_request", QJsonObject()), QJsonObject());
    EXPECT_TRUE(f.driver->m_custom_queries.empty());
}

// ---- get_metadata --------------------------------------------------------------------

TEST(MetadataFile, NarrowsByKeyThenWildcardThenWhole) {
    const QJsonObject wildcard{{"*", QJsonObject{{"x", 1}}}};
    EXPECT_EQ(metadata_file::narrow(wildcard, "absent"), (QJsonObject{{"x", 1}}));
    const QJsonObject keyed{{"k", QJsonObject{{"y", 2}}}};
    EXPECT_EQ(metadata_file::narrow(keyed, "k"), (QJsonObject{{"y", 2}}));
    EXPECT_EQ(metadata_file::narrow(keyed, "other"), keyed);
}

TEST(GetMetadata, ApplicationFileNarrowedByTheRequestedHardwareType) {
    CommandFixture f;
    f.write_file("metadata_app1_proto7_marl2.json", R"({"*": {"x": 1}})");
    f.write_file("metadata_app2_proto7_marl2.json", R"({"marl5": {"y": 2}})");
    const QJsonObject body{{"hw_type", "marl5"}, {"protocol", "proto7"}};

    QJsonObject app1 = body;
    app1["app_id"] = "app1";
    EXPECT_EQ(f.run("get_metadata", app1), (QJsonObject{{"x", 1}}));
    QJsonObject app2 = body;
    app2["app_id"] = "app2";
    EXPECT_EQ(f.run("get_metadata", app2), (QJsonObject{{"y", 2}}));
    app2["hw_type"] = "marl6";
    EXPECT_EQ(f.run("get_metadata", app2), (QJsonObject{{"marl5", QJsonObject{{"y", 2}}}}));
    EXPECT_TRUE(f.driver->m_metadata_requests.isEmpty());
}

TEST(GetMetadata, FileNameMustBeListedExactlyAndMayBeMalformed) {
    CommandFixture f;
    f.write_file("metadata_app1_proto7_marl2.json", R"({"*": {"x": 1}})");
    f.write_file("metadata_bad_proto7_marl2.json", "{ not json");
    const QJsonObject body{{"hw_type", "marl5"}, {"protocol", "proto7"}};
    QJsonObject request = body;
    request["app_id"] = "APP1";
    EXPECT_EQ(f.run("get_metadata", request), QJsonObject());
    request["app_id"] = "bad";
    EXPECT_EQ(f.run("get_metadata", request), QJsonObject());
    request["app_id"] = "../metadata_app1";
    EXPECT_EQ(f.run("get_metadata", request), QJsonObject());
}

TEST(GetMetadata, DriverDescriptionWithoutApplication) {
    CommandFixture f;
    const QJsonObject reply = f.run("get_metadata", QJsonObject{{"hw_type", "MARL7"}, {"protocol", "*"}});
    EXPECT_EQ(reply.keys(), QStringList{"par1"});
    EXPECT_EQ(reply.value("par1").toObject().value("comment"), QJsonValue("for MARL7"));
    EXPECT_EQ(f.driver->m_metadata_requests, QStringList{"MARL7"});
}

TEST(GetMetadata, FailedFiltersOrNoSelectorAnswerEmpty) {
    CommandFixture f;
    EXPECT_EQ(f.run("get_metadata", QJsonObject{{"hw_type", "abc"}, {"protocol", "proto7"}}), QJsonObject());
    EXPECT_EQ(f.run("get_metadata", QJsonObject{{"hw_type", "marl2"}, {"protocol", "other"}}), QJsonObject());
    EXPECT_EQ(f.run("get_metadata", QJsonObject{{"hw_type", "marl2"}}), QJsonObject());
    EXPECT_TRUE(f.driver->m_metadata_requests.isEmpty());
}

TEST(GetMetadata, PerModemUsesEachOwnModemsHardwareType) {
    CommandFixture f;
    const QJsonObject reply = f.run("get_metadata", QJsonObject{{"modem_id", QJsonArray{1, 9, 4, 10}}});
    EXPECT_EQ(reply.keys(), (QStringList{"1", "10"}));
    EXPECT_EQ(f.driver->m_metadata_requests, (QStringList{"marl2", "MARL3"}));
    EXPECT_EQ(reply.value("10").toObject().value("par1").toObject().value("comment"),
              QJsonValue("for MARL3"));
}

// ---- device --------------------------------------------------------------------------

namespace {

model::ul_message uplink(int modem_id, qint64 unique_id, qint64 seconds) {
    model::ul_message m;
    m.modem_id = modem_id;
    m.unique_id = unique_id;
    m.timestamp = QDateTime::fromSecsSinceEpoch(seconds, Qt::UTC);
    m.time_detected = m.timestamp;
    m.ttl = QDateTime::currentDateTimeUtc().addDays(1);
    m.protocol = "proto7";
    m.hw_type = "marl2";
    return m;
}

}  // namespace

TEST(Device, OwnModemsAreSupportedWithTheirStoredUplink) {
    CommandFixture f;
    f.messages->ul().save(uplink(1, 77, 1000));
    f.messages->ul().save(uplink(9, 78, 1000));
    const QJsonObject reply =
        f.run("device", QJsonObject{{"modem_id", QJsonArray{1, 2, 9}}, {"limit", 50}, {"from", 500}});
    EXPECT_EQ(reply.keys(), (QStringList{"1", "2"}));
    EXPECT_EQ(reply.value("2").toObject(), (QJsonObject{{"supported", true}}));
    const QJsonObject one = reply.value("1").toObject();
    EXPECT_EQ(one.value("supported"), QJsonValue(true));
    EXPECT_EQ(one.value("last_roll").toObject().value("unique_id").toInt(), 77);
}

TEST(Device, LastRollIsTheNewestUplinkOfTheRange) {
    CommandFixture f;
    f.messages->ul().save(uplink(1, 76, 900));
    f.messages->ul().save(uplink(1, 78, 1200));
    f.messages->ul().save(uplink(1, 77, 1000));
    const QJsonObject all = f.run("device", QJsonObject{{"modem_id", QJsonArray{1}}});
    EXPECT_EQ(all.value("1").toObject().value("last_roll").toObject().value("unique_id").toInt(), 78);
    const QJsonObject until = f.run("device", QJsonObject{{"modem_id", QJsonArray{1}}, {"to", 1100}});
    EXPECT_EQ(until.value("1").toObject().value("last_roll").toObject().value("unique_id").toInt(), 77);
}

// "fill" is the device command's own ("last"): a client's fill does not turn last_roll
// into the oldest uplink.
TEST(Device, ClientFillDoesNotChangeWhichUplinkIsTheLast) {
    CommandFixture f;
    f.messages->ul().save(uplink(1, 76, 900));
    f.messages->ul().save(uplink(1, 78, 1200));
    for (const QString& fill : {QString(), QString("first"), QString("zero")}) {
        const QJsonObject reply = f.run("device", QJsonObject{{"modem_id", QJsonArray{1}}, {"fill", fill}});
        EXPECT_EQ(reply.value("1").toObject().value("last_roll").toObject().value("unique_id").toInt(), 78)
            << fill.toStdString();
    }
}

TEST(Device, TimeRangeOfTheBodyApplies) {
    CommandFixture f;
    f.messages->ul().save(uplink(1, 77, 1000));
    const QJsonObject reply = f.run("device", QJsonObject{{"modem_id", QJsonArray{1}}, {"from", 2000}});
    EXPECT_EQ(reply, (QJsonObject{{"1", QJsonObject{{"supported", true}}}}));
}
