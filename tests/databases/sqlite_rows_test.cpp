// The rows that the uplink path's writes leave in the SQLite file, read back with plain
// SQL and compared with values worked out by hand: column types, NULL against empty,
// UTF-8 bytes of non-ASCII text, the 64-bit integer boundaries, millisecond times.

#include <QJsonArray>
#include <QJsonDocument>
#include <QSqlRecord>
#include <limits>

#include "tests/databases/sqlite_support.h"

using namespace sqlite_test;

// Readable failure messages for the compared rows.
void PrintTo(const QString& text, std::ostream* out) {
    *out << '"' << text.toStdString() << '"';
}

namespace {

constexpr qint64 int64_max = std::numeric_limits<qint64>::max();  // 2^63 - 1
constexpr qint64 int64_min = std::numeric_limits<qint64>::min();  // -2^63

// "Zähler €" in UTF-8: Z 5A, ä C3 A4, h l e r 68 6C 65 72, space 20, € E2 82 AC.
const QString zaehler = QString::fromUtf8("Z\xC3\xA4hler \xE2\x82\xAC");
const char* zaehler_hex = "5AC3A4686C657220E282AC";

class SqliteRows : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(m_dir.isValid());
        m_path = m_dir.filePath("rows.db");
        m_stores = open_stores(config_for(m_path));
    }

    // One row of a query as "typeof|value" texts, columns joined by ";".
    QString row(const QString& sql) {
        raw_connection raw(m_path);
        QSqlQuery q(raw.db());
        if (!q.exec(sql) || !q.next()) {
            ADD_FAILURE() << sql.toStdString() << ": " << q.lastError().text().toStdString();
            return {};
        }
        QStringList columns;
        for (int i = 0; i < q.record().count(); ++i)
            columns << q.value(i).toString();
        return columns.join(";");
    }

    QTemporaryDir m_dir;
    QString m_path;
    stores m_stores;
};

}  // namespace

TEST_F(SqliteRows, UplinkRowHoldsEachFieldWithItsSqlType) {
    model::ul_message m;
    m.modem_id = 2147483647;
    m.station_id = -2147483647 - 1;
    m.timestamp = at(T0);          // 1,700,000,000 s
    m.time_detected = at(T0 - 1);  // one second earlier
    m.bs_timezone_offset = -180;
    m.phy = zaehler;
    m.snr = -7;
    m.rssi = -120;
    m.tag = QString();  // stored as '' (queries filter on it)
    m.unique_id = int64_max;
    m.data_text = QByteArray("{\"n\":\"W\xC3\xA4rme\"}");
    m.parse_status = "";  // empty, not NULL
    m.payload = QByteArray::fromHex("00ff10");
    m.tz_mismatch = true;
    m.last_dl_bs_aver_busyness = 0.25;
    m.last_dl_bs_busyness = -1.5;
    m.iterator = 65535;
    m_stores.messages->ul().save(m);

    model::ul_message second;
    second.timestamp = at(T0);
    second.unique_id = int64_min;
    second.payload = QByteArray("");  // empty but not null: a zero-length blob
    second.data = QJsonDocument(QJsonObject{{"b", 2}, {"a", QString::fromUtf8("\xC3\xB6")}});
    second.extended_data = QJsonDocument(QJsonArray{1, "x"});
    m_stores.messages->ul().save(second);

    EXPECT_EQ(
        row("SELECT modem_id, typeof(modem_id), station_id, ttl IS NULL, timestamp, time_detected,"
            " bs_timezone_offset, typeof(phy), hex(phy), snr, rssi, typeof(tag), length(tag)"
            " FROM ul_messages WHERE id = 1"),
        QString("2147483647;integer;-2147483648;1;1700000000000;1699999999000;-180;text;%1;-7;-120;text;0")
            .arg(zaehler_hex));
    EXPECT_EQ(row("SELECT typeof(unique_id), unique_id, typeof(data), hex(data), typeof(extended_data),"
                  " typeof(parse_status), length(parse_status), typeof(hw_type), typeof(protocol),"
                  " typeof(payload), hex(payload), typeof(tz_mismatch), tz_mismatch, typeof(dl_phy),"
                  " typeof(last_dl_bs_aver_busyness), last_dl_bs_aver_busyness, last_dl_bs_busyness, iterator"
                  " FROM ul_messages WHERE id = 1"),
              // {"n":"Wärme"} = 7B 22 6E 22 3A 22 57 C3A4 72 6D 65 22 7D
              "integer;9223372036854775807;text;7B226E223A2257C3A4726D65227D;null;text;0;null;null;"
              "blob;00FF10;integer;1;null;real;0.25;-1.5;65535");
    // The document's compact text with its keys in order; the array likewise.
    EXPECT_EQ(row("SELECT unique_id, typeof(payload), length(payload), hex(data), extended_data"
                  " FROM ul_messages WHERE id = 2"),
              // {"a":"ö","b":2} = 7B 22 61 22 3A 22 C3B6 22 2C 22 62 22 3A 32 7D
              "-9223372036854775808;blob;0;7B2261223A22C3B6222C2262223A327D;[1,\"x\"]");

    // And the store reads both back as they were given.
    model::per_modem<model::ul_message> out;
    model::roll_query query;
    query.modem_id = {0};
    query.from = at(T0);
    query.to = at(T0);
    m_stores.messages->ul().get_roll(out, query);
    ASSERT_EQ(out[0].size(), 1u);
    EXPECT_EQ(out[0][0].unique_id, int64_min);
}

TEST_F(SqliteRows, ValueRowsKeepTypesTextAndBoundaries) {
    auto value = [](const QVariant& v) {
        model::dev_value r;
        r.modem_id = 9;
        r.timestamp = at(T0);
        r.obis_code = "1.8.0";
        r.tag = zaehler;
        r.value = v;
        r.message_id = "ff01";
        r.ttl = at(4102444800);  // 2100-01-01 00:00:00 UTC
        return r;
    };
    QList<model::dev_value> values = {
        value(QVariant(qlonglong(int64_max))),
        value(QVariant(qlonglong(int64_min))),
        value(QVariant(qulonglong(int64_max) + 1)),  // 2^63 does not fit: kept as its text
        value(QVariant(true)),
        value(QVariant(1.5)),
        value(QVariant(-3)),
        value(QVariant(QString::fromUtf8("\xC2\xB0"
                                         "C"))),  // °C = C2 B0 43
        value(QVariant()),
    };
    values[7].obis_code = QString();  // '' in the row, not NULL
    values[7].message_id = QString();
    values[7].ttl = QDateTime();
    m_stores.eav->records().save_values(values);

    // Rows in list order; QMetaType ids: Bool 1, Int 2, LongLong 4, ULongLong 5,
    // Double 6, QString 10, none 0.
    const QStringList expected = {
        "1;integer;9223372036854775807;4",
        "2;integer;-9223372036854775808;4",
        "3;text;9223372036854775808;5",
        "4;integer;1;1",
        "5;real;1.5;6",
        "6;integer;-3;2",
        "7;text;C2B043;10",
        "8;null;;0",
    };
    for (int id = 1; id <= expected.size(); ++id) {
        const QString value_column = id == 7 ? "hex(value)" : "value";
        EXPECT_EQ(row(QString("SELECT id, typeof(value), %1, value_type FROM dev_values WHERE id = %2")
                          .arg(value_column)
                          .arg(id)),
                  expected[id - 1]);
    }
    EXPECT_EQ(
        row("SELECT modem_id, timestamp, obis_code, hex(tag), message_id, ttl FROM dev_values WHERE id = 1"),
        QString("9;1700000000000;1.8.0;%1;ff01;4102444800000").arg(zaehler_hex));
    EXPECT_EQ(row("SELECT typeof(obis_code), length(obis_code), typeof(message_id), typeof(ttl)"
                  " FROM dev_values WHERE id = 8"),
              "text;0;null;null");

    // Read back through the store, each value has its own type again.
    model::per_modem<model::dev_value> out;
    model::value_query query;
    query.modem_id = {9};
    query.from = at(T0);
    query.to = at(T0);
    m_stores.eav->records().get_values(out, query);
    ASSERT_EQ(out[9].size(), 8u);
    EXPECT_EQ(out[9][0].value, QVariant(qlonglong(int64_max)));
    EXPECT_EQ(out[9][1].value, QVariant(qlonglong(int64_min)));
    EXPECT_EQ(out[9][2].value.userType(), QMetaType::ULongLong);
    EXPECT_EQ(out[9][2].value.toULongLong(), qulonglong(1) << 63);
    EXPECT_EQ(out[9][3].value, QVariant(true));
    EXPECT_EQ(out[9][6].value, QVariant(QString::fromUtf8("\xC2\xB0"
                                                          "C")));
}

TEST_F(SqliteRows, EventRowsAndDriverStateRows) {
    model::dev_event e;
    e.modem_id = 3;
    e.timestamp = at(T0 + 1);
    e.event_code = 17;
    e.message_id = "a0";
    e.message = zaehler;
    e.extended_data = QJsonDocument(QJsonObject{{"k", QString::fromUtf8("\xC3\xBC")}});  // ü = C3 BC
    e.parameter = -1;
    model::dev_event plain;
    plain.modem_id = 3;
    plain.event_code = 2;
    m_stores.eav->records().save_events({e, plain});

    EXPECT_EQ(row("SELECT modem_id, timestamp, event_code, message_id, hex(message), hex(extended_data),"
                  " parameter, typeof(ttl) FROM dev_events WHERE id = 1"),
              // {"k":"ü"} = 7B 22 6B 22 3A 22 C3BC 22 7D
              QString("3;1700000001000;17;a0;%1;7B226B223A22C3BC227D;-1;null").arg(zaehler_hex));
    EXPECT_EQ(
        row("SELECT typeof(timestamp), typeof(message_id), typeof(message), typeof(extended_data), parameter"
            " FROM dev_events WHERE id = 2"),
        "null;null;null;null;0");

    // A state entry is its value as the one element of a compact JSON array.
    m_stores.state->begin(3);
    m_stores.state->set(3, zaehler,
                        QJsonValue(QJsonObject{{"rssi", -120}, {"phy", QString::fromUtf8("\xC3\xA4")}}));
    m_stores.state->set(3, "n", QJsonValue(true));
    m_stores.state->end(3, 0);
    m_stores.state->begin(3);
    m_stores.state->end(3, 1);  // the later mark replaces the earlier one
    EXPECT_EQ(row(QString("SELECT hex(key), hex(value) FROM state_entries WHERE modem_id = 3 AND key = '%1'")
                      .arg(zaehler)),
              // [{"phy":"ä","rssi":-120}] = 5B 7B 22 70 68 79 22 3A 22 C3A4 22 2C 22 72 73 73 69 22 3A 2D 31
              // 32 30 7D 5D
              QString("%1;5B7B22706879223A22C3A4222C2272737369223A2D3132307D5D").arg(zaehler_hex));
    EXPECT_EQ(row("SELECT value FROM state_entries WHERE modem_id = 3 AND key = 'n'"), "[true]");
    EXPECT_EQ(row("SELECT COUNT(*), MAX(mark) FROM state_marks WHERE modem_id = 3"), "1;1");
}

TEST_F(SqliteRows, AFailedWriteNamesTheFileSqlitesWordsAndTheStatement) {
    // A second connection holds the write lock: the store's write waits its busy_timeout (1 ms) and
    // then fails with SQLite's "database is locked".
    const QString path = m_dir.filePath("locked.db");
    stores s = open_stores(QJsonObject{{"path", path}, {"purge_interval", 0}, {"busy_timeout", 1}});
    raw_connection other(path);
    ASSERT_TRUE(other.exec("BEGIN IMMEDIATE"));
    std::string error;
    try {
        s.eav->records().save_values({model::dev_value{}});
    } catch (const std::runtime_error& e) {
        error = e.what();
    }
    other.exec("ROLLBACK");
    EXPECT_EQ(error, QString("SQLite store %1: statement failed: database is locked Unable to fetch row in: "
                             "BEGIN IMMEDIATE")
                         .arg(path)
                         .toStdString());
}

TEST_F(SqliteRows, UnchangedStateRowsAreNotWrittenAgain) {
    // Triggers of the test's own count the updates that reach the rows.
    {
        raw_connection raw(m_path);
        raw.exec("CREATE TABLE updates (what TEXT)");
        raw.exec(
            "CREATE TRIGGER mark_updated AFTER UPDATE ON state_marks BEGIN"
            " INSERT INTO updates VALUES ('mark'); END");
        raw.exec(
            "CREATE TRIGGER entry_updated AFTER UPDATE ON state_entries BEGIN"
            " INSERT INTO updates VALUES ('entry'); END");
    }
    auto uplink_state = [&](int rssi, int mark) {
        m_stores.state->begin(5);
        m_stores.state->set(5, "common", QJsonValue(QJsonObject{{"rssi", rssi}}));
        m_stores.state->end(5, mark);
    };
    uplink_state(-100, 0);  // inserted
    uplink_state(-100, 0);  // the same: no update
    uplink_state(-101, 0);  // the entry changes, the mark does not
    uplink_state(-101, 1);  // the mark changes
    EXPECT_EQ(row("SELECT group_concat(what, ',') FROM updates"), "entry,mark");
    EXPECT_EQ(row("SELECT value FROM state_entries WHERE modem_id = 5"), "[{\"rssi\":-101}]");
    EXPECT_EQ(row("SELECT mark FROM state_marks WHERE modem_id = 5"), "1");
}
