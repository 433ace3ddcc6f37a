#include <gtest/gtest.h>
#include <QJsonArray>

#include "command_fixture.h"
#include "commands/query_readers.h"

using command_test::CommandFixture;
using namespace query_readers;

TEST(QueryReaders, ModemIdsKeepOnlyInt32Numbers) {
    CommandFixture f;
    const QJsonArray ids{1, -7, 2147483647, 2147483648.0, -2147483649.0, 1.5, "3", true, QJsonValue(), 4};
    EXPECT_EQ(modem_ids(ids, *f.context), (QList<int>{1, -7, 2147483647, 4}));
    const QString log = f.log_text();
    EXPECT_TRUE(log.contains("modem id 2147483648 is not a 32-bit integer, dropped"));
    EXPECT_TRUE(log.contains("modem id 1.5 is not"));
    EXPECT_TRUE(log.contains("modem id '3' is not"));
}

TEST(QueryReaders, ModemIdsListedTwiceAreTakenOnceWhereFirstListed) {
    CommandFixture f;
    EXPECT_EQ(modem_ids(QJsonArray{5, 3, 5, 5, -1, 3, 7}, *f.context), (QList<int>{5, 3, -1, 7}));
    const QJsonObject body{{"modem_id", QJsonArray{3, 1, 3, 1}}};
    EXPECT_EQ(read_roll_query(body, *f.context).modem_id, (QList<int>{3, 1}));
    EXPECT_EQ(read_value_query(body, *f.context).modem_id, (QList<int>{3, 1}));
    EXPECT_EQ(read_dl_query(body, *f.context).modem_id, (QList<int>{3, 1}));
}

TEST(QueryReaders, OnlyTheFirst300000ElementsOfAModemListAreRead) {
    CommandFixture f;
    QJsonArray ids;
    for (int i = 1; i <= 300005; ++i) {
        ids.append(i);
    }
    const QList<int> read = modem_ids(ids, *f.context);
    ASSERT_EQ(read.size(), 300000);
    EXPECT_EQ(read.last(), 300000);
    EXPECT_TRUE(f.log_text().contains("\"modem_id\" lists 300005 ids, only the first 300000 are read"));
}

TEST(QueryReaders, ModemIdsThatAreNotAnArray) {
    CommandFixture f;
    EXPECT_TRUE(modem_ids(QJsonValue(5), *f.context).isEmpty());
    EXPECT_TRUE(f.log_text().contains("\"modem_id\" is not an array"));
    EXPECT_TRUE(modem_ids(QJsonValue(QJsonValue::Undefined), *f.context).isEmpty());
}

TEST(QueryReaders, ModemKeysAreDecimalInt32) {
    CommandFixture f;
    EXPECT_EQ(modem_id_from_key("42", *f.context), 42);
    EXPECT_EQ(modem_id_from_key("-3", *f.context), -3);
    EXPECT_FALSE(modem_id_from_key("0x10", *f.context));
    EXPECT_FALSE(modem_id_from_key("2147483648", *f.context));
    EXPECT_FALSE(modem_id_from_key("", *f.context));
}

TEST(QueryReaders, OwnedModemIdsDropForeignModemsAndKeepOrder) {
    CommandFixture f;
    EXPECT_EQ(owned_modem_ids(QJsonArray{10, 9, 4, 1, 1}, *f.context), (QList<int>{10, 1}));
    f.context->engine_config.settings.check_is_mine = false;
    EXPECT_EQ(owned_modem_ids(QJsonArray{9, 4}, *f.context), (QList<int>{9, 4}));
}

TEST(QueryReaders, LimitDefaultCapAndBadTypes) {
    EXPECT_EQ(read_limit(QJsonObject()), 3000);
    EXPECT_EQ(read_limit(QJsonObject{{"limit", 300000}}), 300000);
    EXPECT_EQ(read_limit(QJsonObject{{"limit", 300001}}), 300000);
    EXPECT_EQ(read_limit(QJsonObject{{"limit", 1e300}}), 300000);
    EXPECT_EQ(read_limit(QJsonObject{{"limit", 0}}), 0);
    EXPECT_EQ(read_limit(QJsonObject{{"limit", 12.9}}), 12);
    EXPECT_EQ(read_limit(QJsonObject{{"limit", "12"}}), 3000);
}

TEST(QueryReaders, TimeRangeIsUtcSeconds) {
    EXPECT_EQ(read_from(QJsonObject()), QDateTime::fromSecsSinceEpoch(0, Qt::UTC));
    EXPECT_EQ(read_from(QJsonObject{{"from", 1700000000}}),
              QDateTime::fromSecsSinceEpoch(1700000000, Qt::UTC));
    EXPECT_EQ(read_from(QJsonObject{{"from", "1700000000"}}), QDateTime::fromSecsSinceEpoch(0, Qt::UTC));
    EXPECT_EQ(read_to(QJsonObject{{"to", 5}}).timeSpec(), Qt::UTC);
    const QDateTime to = read_to(QJsonObject{{"to", 1e300}});
    EXPECT_LE(qAbs(to.secsTo(QDateTime::currentDateTimeUtc())), 2);
}

TEST(QueryReaders, RollAndValueQueries) {
    CommandFixture f;
    const QJsonObject body{{"modem_id", QJsonArray{1, 9}},
                           {"tag", QJsonArray{"t1", 5, "t2"}},
                           {"time_detected", true},
                           {"fill", "f"},
                           {"obis_codes", QJsonArray{"1.8"}},
                           {"first_and_last", true},
                           {"step", 60},
                           {"limit", 10}};
    const model::roll_query roll = read_roll_query(body, *f.context);
    EXPECT_EQ(roll.modem_id, QList<int>{1});
    EXPECT_EQ(roll.tag, (QStringList{"t1", "t2"}));
    EXPECT_TRUE(roll.time_detected);
    EXPECT_EQ(roll.fill, "f");
    EXPECT_EQ(roll.limit, 10);

    const model::value_query values = read_value_query(body, *f.context);
    EXPECT_EQ(values.modem_id, QList<int>{1});
    EXPECT_EQ(values.obis_codes, QStringList{"1.8"});
    EXPECT_TRUE(values.first_and_last);
    EXPECT_EQ(values.step, 60);

    const model::dl_query empty = read_dl_query(QJsonObject(), *f.context);
    EXPECT_TRUE(empty.modem_id.isEmpty());
    EXPECT_EQ(empty.limit, 3000);
}
