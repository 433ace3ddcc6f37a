// The PostgreSQL plugin's own behaviour: its configuration, the schema and its version,
// time partitions, value types, expiry by whole partitions, and the history query's plan.

#include <QJsonArray>
#include <thread>

#include "databases/postgres/partitions.h"
#include "databases/postgres/schema.h"
#include "tests/databases/postgres_support.h"

using namespace pg_test;
using postgres_db::pg_config;

namespace {

model::dev_value value(int modem, QDateTime time, const QVariant& v, QDateTime ttl = QDateTime()) {
    model::dev_value r;
    r.modem_id = modem;
    r.timestamp = time;
    r.obis_code = "1.8.0";
    r.tag = "energy";
    r.value = v;
    r.ttl = ttl;
    return r;
}

QDateTime past_ttl() {
    return QDateTime::currentDateTimeUtc().addSecs(-60);
}

QDateTime live_ttl() {
    return QDateTime::currentDateTimeUtc().addDays(1);
}

class PostgresStore : public ::testing::Test {
protected:
    void SetUp() override { m_stores = open_stores(config_for(m_schema)); }
    void TearDown() override {
        m_stores = stores{};
        raw.exec("DROP SCHEMA IF EXISTS " + m_schema + " CASCADE");
    }

    QString partitions_of(const QString& table) {
        return raw.rows(QString("SELECT c.relname FROM pg_inherits i JOIN pg_class c ON c.oid = i.inhrelid"
                                " WHERE i.inhparent = '%1.%2'::regclass ORDER BY 1")
                            .arg(m_schema, table));
    }

    QString m_schema = unique_schema("store");
    raw_session raw;
    stores m_stores;
};

}  // namespace

TEST(PostgresConfig, ConninfoAndSeparateKeysMakeTheConnectionWithoutShowingThePassword) {
    const pg_config c = pg_config::from_json(
        QJsonObject{{"conninfo", "host=db1 port=6000 dbname=meters user=q password=hunter2"},
                    {"port", 6001},
                    {"schema", "s1"}});
    EXPECT_EQ(c.parameter("host"), "db1");
    EXPECT_EQ(c.parameter("port"), "6001");  // the separate key wins
    EXPECT_EQ(c.parameter("dbname"), "meters");
    EXPECT_EQ(c.parameter("password"), "hunter2");
    EXPECT_EQ(c.parameter("connect_timeout"), "5");
    EXPECT_TRUE(c.parameter("options").contains("search_path=s1")) << c.parameter("options").constData();
    EXPECT_EQ(c.describe(), "db1:6001/meters (schema s1, user q)");
    EXPECT_FALSE(c.describe().contains("hunter2"));

    const pg_config keys = pg_config::from_json(
        QJsonObject{{"host", "db2"}, {"dbname", "d"}, {"user", "u"}, {"password", "p"}, {"port", "5433"}});
    EXPECT_EQ(keys.parameter("host"), "db2");
    EXPECT_EQ(keys.parameter("port"), "5433");
    EXPECT_EQ(keys.schema, "public");
    EXPECT_EQ(keys.partition, postgres_db::partition_unit::month);
}

TEST(PostgresConfig, WhatCannotBeUsedIsRefusedWithTheReason) {
    const auto refusal = [](const QJsonObject& o) -> std::string {
        try {
            pg_config::from_json(o);
        } catch (const std::runtime_error& e) {
            return e.what();
        }
        return "accepted";
    };
    EXPECT_NE(refusal({{"conninfo", "host=a nonsense"}}).find("conninfo"), std::string::npos);
    EXPECT_NE(refusal({{"schema", "Bad-Name"}}).find("schema"), std::string::npos);
    EXPECT_NE(refusal({{"schema", "x; DROP TABLE y"}}).find("schema"), std::string::npos);
    EXPECT_NE(refusal({{"partition", "year"}}).find("partition"), std::string::npos);
    EXPECT_EQ(refusal({{"partition", "week"}, {"schema", "ok_1"}}), "accepted");
}

// Periods worked out on a calendar: 2024 is a leap year, 2024-01-03 is a Wednesday.
TEST(PostgresPartitions, PeriodsStartOnTheFirstDayMondayOrMidnightInUtc) {
    const qint64 leap_day_noon = QDateTime(QDate(2024, 2, 29), QTime(12, 0), Qt::UTC).toMSecsSinceEpoch();
    const qint64 wednesday = QDateTime(QDate(2024, 1, 3), QTime(23, 59, 59), Qt::UTC).toMSecsSinceEpoch();

    pg_config config;
    postgres_db::partitions months(config);
    EXPECT_EQ(months.period_start(leap_day_noon), QDate(2024, 2, 1));
    EXPECT_EQ(months.next_period(QDate(2024, 2, 1)), QDate(2024, 3, 1));
    EXPECT_EQ(months.next_period(QDate(2024, 12, 1)), QDate(2025, 1, 1));
    EXPECT_EQ(postgres_db::partitions::ms_of(QDate(2024, 3, 1)), 1709251200000LL);

    config.partition = postgres_db::partition_unit::week;
    postgres_db::partitions weeks(config);
    EXPECT_EQ(weeks.period_start(wednesday), QDate(2024, 1, 1));
    EXPECT_EQ(weeks.next_period(QDate(2024, 1, 1)), QDate(2024, 1, 8));

    config.partition = postgres_db::partition_unit::day;
    postgres_db::partitions days(config);
    EXPECT_EQ(days.period_start(wednesday), QDate(2024, 1, 3));
}

TEST_F(PostgresStore, AFreshSchemaIsCreatedAtTheCurrentVersionWithPartitionsAhead) {
    EXPECT_EQ(raw.rows("SELECT max(version) FROM " + m_schema + ".schema_version"),
              QString::number(postgres_db::current_schema_version()));
    const QDate month = QDate::currentDate().addDays(-QDate::currentDate().day() + 1);
    const QString expected = QStringList{"dev_values_default", "dev_values_p" + month.toString("yyyyMMdd"),
                                         "dev_values_p" + month.addMonths(1).toString("yyyyMMdd"),
                                         "dev_values_p" + month.addMonths(2).toString("yyyyMMdd")}
                                 .join(',');
    EXPECT_EQ(partitions_of("dev_values"), expected);

    // A second instance on the same schema migrates nothing and shares the rows.
    stores second = open_stores(config_for(m_schema));
    EXPECT_EQ(raw.rows("SELECT count(*) FROM " + m_schema + ".schema_version"), "1");
    m_stores.clients->set_device(5, {"proto7", "X", {"c"}});
    EXPECT_EQ(second.clients->clients_store().device(5), (std::pair<QString, QString>{"proto7", "X"}));
}

TEST_F(PostgresStore, ASchemaOfANewerVersionIsRefusedAndLeftAsItIs) {
    const QString other = unique_schema("newer");
    raw.exec("CREATE SCHEMA " + other);
    raw.exec("CREATE TABLE " + other + ".schema_version (version integer NOT NULL)");
    raw.exec("INSERT INTO " + other + ".schema_version VALUES (99)");
    try {
        open_stores(config_for(other));
        ADD_FAILURE() << "a newer schema was accepted";
    } catch (const std::runtime_error& e) {
        const QString text = e.what();
        EXPECT_TRUE(text.contains("version 99") && text.contains("newer")) << e.what();
        EXPECT_TRUE(text.contains(other)) << e.what();
    }
    EXPECT_EQ(raw.rows("SELECT count(*) FROM pg_tables WHERE schemaname = '" + other + "'"), "1");
    raw.exec("DROP SCHEMA " + other + " CASCADE");
}

TEST_F(PostgresStore, RowsGoToThePartitionOfTheirPeriodAndTimelessOnesToTheDefault) {
    m_stores.eav->records().save_values({value(5, at(T0), 1.0),               // 2023-11-14
                                         value(5, at(T0 + 60 * 86400), 2.0),  // 2024-01-13
                                         value(5, QDateTime(), 3.0)});        // no time
    EXPECT_EQ(
        raw.rows("SELECT tableoid::regclass::text, count(*) FROM " + m_schema +
                 ".dev_values GROUP BY 1 ORDER BY 1"),
        QString("%1.dev_values_default|1,%1.dev_values_p20231101|1,%1.dev_values_p20240101|1").arg(m_schema));

    model::value_query q;
    q.modem_id = {5};
    q.from = at(T0 - 10);
    q.to = at(T0 + 61 * 86400);
    model::per_modem<model::dev_value> out;
    m_stores.eav->records().get_values(out, q);
    ASSERT_EQ(out[5].size(), 2u);
    EXPECT_EQ(out[5][0].value.toDouble(), 1.0);
    EXPECT_EQ(out[5][1].value.toDouble(), 2.0);
}

TEST_F(PostgresStore, ValuesReadBackWithTheirTypesAndTextsWithQuotesSurvive) {
    const QString awkward = "a \"quoted\" \\ back,slash {brace} 'single' ünïcode";
    m_stores.eav->records().save_values({value(6, at(T0 + 1), 5), value(6, at(T0 + 2), 2.5),
                                         value(6, at(T0 + 3), true), value(6, at(T0 + 4), QString("5")),
                                         value(6, at(T0 + 5), awkward), value(6, at(T0 + 6), QVariant()),
                                         value(6, at(T0 + 7), qint64(1) << 40)});
    model::value_query q;
    q.modem_id = {6};
    q.from = at(T0);
    q.to = at(T0 + 10);
    q.tag = QStringList{"energy", awkward};
    model::per_modem<model::dev_value> out;
    m_stores.eav->records().get_values(out, q);
    ASSERT_EQ(out[6].size(), 7u);
    EXPECT_EQ(out[6][0].value, QVariant(5));
    EXPECT_EQ(out[6][0].value.userType(), QMetaType::Int);
    EXPECT_EQ(out[6][1].value.userType(), QMetaType::Double);
    EXPECT_EQ(out[6][1].value.toDouble(), 2.5);
    EXPECT_EQ(out[6][2].value.userType(), QMetaType::Bool);
    EXPECT_TRUE(out[6][2].value.toBool());
    EXPECT_EQ(out[6][3].value.userType(), QMetaType::QString);
    EXPECT_EQ(out[6][4].value.toString(), awkward);
    EXPECT_FALSE(out[6][5].value.isValid());
    EXPECT_EQ(out[6][6].value.toLongLong(), qint64(1) << 40);
}

TEST_F(PostgresStore, AnExpiredPastPartitionIsDroppedWholeAndLiveRowsStay) {
    const QDateTime november = at(T0);               // 2023-11-14
    const QDateTime december = at(T0 + 20 * 86400);  // 2023-12-04
    m_stores.eav->records().save_values(
        {value(7, november, 1.0, past_ttl()), value(7, november.addSecs(1), 2.0, past_ttl()),
         value(7, december, 3.0, past_ttl()), value(7, december.addSecs(1), 4.0, live_ttl()),
         value(7, december.addSecs(2), 5.0)});  // no ttl: never expires
    // November goes whole (2 rows); of December one expired row, as the limit says.
    EXPECT_EQ(m_stores.eav->purge_expired(1), 3);
    EXPECT_FALSE(partitions_of("dev_values").contains("dev_values_p20231101"));
    EXPECT_TRUE(partitions_of("dev_values").contains("dev_values_p20231201"));
    EXPECT_EQ(raw.rows("SELECT string_agg(value, ' ' ORDER BY value) FROM " + m_schema + ".dev_values"),
              "4 5");
    EXPECT_EQ(m_stores.eav->purge_expired(10), 0);

    // A late row of November makes its partition again.
    m_stores.eav->records().save_values({value(7, november, 6.0)});
    EXPECT_EQ(raw.rows("SELECT tableoid::regclass::text FROM " + m_schema + ".dev_values WHERE value = '6'"),
              m_schema + ".dev_values_p20231101");
}

// The history query reads each partition's (modem, time) index in time order and stops
// at the limit: no table is scanned, however many modems share it.
TEST_F(PostgresStore, TheHistoryQueryOfOneModemIsAnIndexScan) {
    const QString table = m_schema + ".dev_values";
    // Partitions for five months, made by the store as rows of those months arrive.
    for (int month = 0; month < 5; ++month)
        m_stores.eav->records().save_values({value(1, at(T0).addMonths(month), 0.0)});
    raw.exec("INSERT INTO " + table +
             " (modem_id, \"timestamp\", obis_code, tag, value, value_type, ttl)"
             " SELECT g % 20, 1700000000000 + g * 60000::bigint, '1.8.0', 'energy', g::text, 6, NULL"
             " FROM generate_series(1, 200000) AS g");
    raw.exec("ANALYZE " + table);
    const QString plan = raw.rows(
        "EXPLAIN SELECT modem_id, \"timestamp\", value FROM " + table +
        " WHERE modem_id = 7 AND \"timestamp\" BETWEEN 0 AND 9000000000000 AND (ttl IS NULL OR ttl > 0)"
        " ORDER BY \"timestamp\", id LIMIT 3000");
    EXPECT_TRUE(plan.contains("Index Scan") || plan.contains("Index Only Scan")) << plan.toStdString();
    EXPECT_FALSE(plan.contains("Seq Scan")) << plan.toStdString();
    EXPECT_FALSE(plan.contains("Sort  (")) << plan.toStdString();
}

// A partition made inside a unit of a batch that is undone is gone with it; the store
// must not believe it exists, or later rows of its period would land in the default
// partition.
TEST_F(PostgresStore, APartitionMadeInAnUndoneUnitIsMadeAgainWhenNeeded) {
    model::ul_message january;
    january.modem_id = 3;
    january.timestamp = QDateTime(QDate(2020, 1, 15), QTime(0, 0), Qt::UTC);
    interfaces::IWriteBatch* batch = m_stores.messages->write_batch();
    batch->begin_batch();
    batch->begin_item();
    m_stores.messages->ul().save(january);
    EXPECT_TRUE(batch->end_item(false));
    batch->commit_batch();
    EXPECT_FALSE(partitions_of("ul_messages").contains("ul_messages_p20200101"));

    january.timestamp = january.timestamp.addDays(1);
    m_stores.messages->ul().save(january);
    EXPECT_EQ(raw.rows("SELECT tableoid::regclass::text FROM " + m_schema + ".ul_messages"),
              m_schema + ".ul_messages_p20200101");
}

// Instances started together on a schema that does not exist yet: one creates it, the
// others wait for it and find it made; nobody fails and the version is recorded once.
TEST(PostgresStartTogether, InstancesStartingTogetherMigrateOnce) {
    const QString schema = unique_schema("together");
    std::vector<std::string> failures(4);
    std::vector<std::thread> starts;
    for (size_t i = 0; i < failures.size(); ++i) {
        starts.emplace_back([&, i] {
            try {
                stores s = open_stores(config_for(schema));
                s.clients->set_device(int(i), {"proto7", "X", {}});
            } catch (const std::exception& e) {
                failures[i] = e.what();
            }
        });
    }
    for (std::thread& t : starts)
        t.join();
    for (const std::string& failure : failures)
        EXPECT_EQ(failure, "");
    raw_session raw;
    EXPECT_EQ(raw.rows("SELECT count(*), max(version) FROM " + schema + ".schema_version"),
              QString("1|%1").arg(postgres_db::current_schema_version()));
    EXPECT_EQ(raw.rows("SELECT count(*) FROM " + schema + ".devices"), "4");
    raw.exec("DROP SCHEMA " + schema + " CASCADE");
}

// An operator who made the schema for the service's user gives that user no right on
// the database itself: the store starts in the schema as it finds it.
TEST(PostgresRights, AUserWhoOwnsItsSchemaButMayNotCreateSchemasStarts) {
    const QString schema = unique_schema("owned");
    const QString role = schema + "_user";
    raw_session raw;
    raw.exec("CREATE ROLE " + role + " LOGIN");
    raw.exec("CREATE SCHEMA " + schema + " AUTHORIZATION " + role);
    QJsonObject config = config_for(schema);
    config["user"] = role;
    try {
        stores s = open_stores(config);
        s.clients->set_device(1, {"proto7", "X", {}});
        EXPECT_EQ(s.clients->devices().size(), 1u);
    } catch (const std::exception& e) {
        ADD_FAILURE() << e.what();
    }
    raw.exec("DROP SCHEMA " + schema + " CASCADE");
    raw.exec("DROP ROLE " + role);
}
