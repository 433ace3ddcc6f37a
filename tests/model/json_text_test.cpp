#include <gtest/gtest.h>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QStringList>
#include <cstring>
#include <limits>
#include <random>

#include "model/json.h"
#include "model/json_text.h"

// The directly written text must be, byte for byte, what Qt writes for the record's object:
// published bodies and stored documents keep their exact form.
namespace {

QByteArray qt_text(const QJsonObject& o) {
    return QJsonDocument(o).toJson(QJsonDocument::Compact);
}

model::ul_message sample_message() {
    model::ul_message m;
    m.modem_id = 77;
    m.station_id = 12;
    m.ttl = QDateTime::fromSecsSinceEpoch(1700000100, Qt::UTC);
    m.timestamp = QDateTime::fromSecsSinceEpoch(1700000000, Qt::UTC);
    m.time_detected = QDateTime::fromSecsSinceEpoch(1699999990, Qt::UTC);
    m.bs_timezone_offset = -3;
    m.phy = "ul_1";
    m.snr = 9;
    m.rssi = -120;
    m.tag = "t";
    m.unique_id = 42;
    m.data = QJsonDocument(QJsonObject{{"v", 1.5}, {"a", QJsonArray{1, "x", true}}});
    m.parse_status = "parsed";
    m.hw_type = "X";
    m.protocol = "proto7";
    m.payload = QByteArray::fromHex("0aff");
    m.tz_mismatch = true;
    return m;
}

}  // namespace

TEST(JsonText, HandWrittenBodiesOfTheThreeRecords) {
    EXPECT_EQ(
        model::json_text(sample_message()),
        QByteArray(R"({"bs_timezone_offset":-3,"data":{"a":[1,"x",true],"v":1.5},"extended_data":null,)"
                   R"("hw_type":"X","modem_id":77,"parse_status":"parsed","payload":"0aff","phy":"ul_1",)"
                   R"("protocol":"proto7","rssi":-120,"snr":9,"station_id":12,"tag":"t",)"
                   R"("time_detected":1699999990,"timestamp":1700000000,"ttl":1700000100,)"
                   R"("tz_mismatch":true,"unique_id":42})"));

    model::dev_value v;
    v.modem_id = 31;
    v.timestamp = QDateTime::fromSecsSinceEpoch(1600000000, Qt::UTC);
    v.obis_code = "1.8.0";
    v.tag = "hourly";
    v.value = 12.5;
    v.message_id = "m-1";
    v.ttl = QDateTime::fromSecsSinceEpoch(1600086400, Qt::UTC);
    EXPECT_EQ(model::json_text(v), QByteArray(R"({"message_id":"m-1","modem_id":31,"obis_code":"1.8.0",)"
                                              R"("tag":"hourly","timestamp":1600000000,"ttl":1600086400,)"
                                              R"("value":12.5})"));

    model::dev_event e;
    e.modem_id = 31;
    e.timestamp = QDateTime::fromSecsSinceEpoch(1600000000, Qt::UTC);
    e.ttl = QDateTime::fromSecsSinceEpoch(1600000060, Qt::UTC);
    e.event_code = 17;
    e.message_id = "m-2";
    e.message = "Say \"hi\"\n";
    e.extended_data = QJsonDocument(QJsonObject{{"n", -2}});
    e.parameter = -4;
    EXPECT_EQ(model::json_text(e),
              QByteArray(R"({"event_code":17,"extended_data":{"n":-2},"message":"Say \"hi\"\n",)"
                         R"("message_id":"m-2","modem_id":31,"parameter":-4,)"
                         R"("timestamp":1600000000,"ttl":1600000060})"));
}

TEST(JsonText, NumbersAsQtWritesThem) {
    // Integral values in full up to 2^64, beyond 2^53 rounded as doubles; others shortest.
    const std::pair<double, const char*> cases[] = {
        {0.0, "0"},
        {-0.0, "0"},
        {1700000000, "1700000000"},
        {9007199254740993.0, "9007199254740992"},
        {9223372036854775807.0, "9223372036854776000"},
        {1e20, "1e+20"},
        {0.1, "0.1"},
        {1e-7, "1e-07"},
        {123456789.125, "123456789.125"},
        {std::numeric_limits<double>::infinity(), "null"},
        {std::numeric_limits<double>::quiet_NaN(), "null"},
    };
    for (const auto& [number, text] : cases) {
        QByteArray out;
        model::json_text_detail::append_number(out, number);
        EXPECT_EQ(out, QByteArray(text)) << number;
    }
}

TEST(JsonText, StringsEscapedAsQtEscapesThem) {
    QByteArray out;
    model::json_text_detail::append_string(
        out, QString::fromUtf8("a\"b\\c\x01\x1f\x7f/\u00e9\U0001F600\b\f\n\r\t") + QChar(0xD800) + "z" +
                 QChar(0xDC00));
    EXPECT_EQ(
        out, QByteArray(
                 "\"a\\\"b\\\\c\\u0001\\u001f\x7f/\xc3\xa9\xf0\x9f\x98\x80\\b\\f\\n\\r\\t\\ud800z\\udc00\""));
}

namespace {

// Random scalars, strings and nesting, to hold the writer against Qt's own.
class random_json {
public:
    explicit random_json(unsigned seed) : m_random(seed) {}

    QString text() {
        static const char16_t pool[] = {u'a',   u'Z',   u'0',   u' ',   u'"',   u'\\', u'/',
                                        0x01,   0x1f,   0x7f,   0x80,   0xe9,   0x7ff, 0x800,
                                        0x2028, 0xfffd, 0xffff, 0xd83d, 0xde00, u'\n', u'\t'};
        QString s;
        const int length = int(m_random() % 12);
        for (int i = 0; i < length; ++i) {
            s.append(QChar(pool[m_random() % (sizeof pool / sizeof pool[0])]));
        }
        return s;
    }
    double number() {
        switch (m_random() % 4) {
            case 0:
                return double(int64_t(m_random()) >> (m_random() % 64));
            case 1:
                return double(int64_t(m_random() % 2000000) - 1000000) / 1000.0;
            case 2: {
                const uint64_t bits = m_random();
                double d;
                std::memcpy(&d, &bits, sizeof d);
                return d;
            }
            default:
                return std::ldexp(double(m_random() % 1000), int(m_random() % 140) - 70);
        }
    }
    QJsonValue value(int depth) {
        switch (m_random() % (depth > 0 ? 7 : 5)) {
            case 0:
                return QJsonValue();
            case 1:
                return bool(m_random() % 2);
            case 2:
                return number();
            case 3:
            case 4:
                return text();
            case 5:
                return object(depth - 1);
            default: {
                QJsonArray a;
                for (int i = int(m_random() % 5); i > 0; --i)
                    a.append(value(depth - 1));
                return a;
            }
        }
    }
    QJsonObject object(int depth) {
        QJsonObject o;
        for (int i = int(m_random() % 6); i > 0; --i)
            o.insert(text(), value(depth));
        return o;
    }
    std::mt19937_64& random() { return m_random; }

private:
    std::mt19937_64 m_random;
};

}  // namespace

TEST(JsonText, RandomDocumentsAndRecordsMatchQtByteForByte) {
    random_json gen(20261125);
    for (int i = 0; i < 3000; ++i) {
        const QJsonObject o = gen.object(3);
        ASSERT_EQ(model::compact_text(QJsonDocument(o)), qt_text(o)) << i;
        QJsonArray a{gen.value(2), gen.value(2)};
        ASSERT_EQ(model::compact_text(QJsonDocument(a)), QJsonDocument(a).toJson(QJsonDocument::Compact))
            << i;

        model::dev_value v;
        v.modem_id = int32_t(gen.random()());
        v.timestamp = QDateTime::fromSecsSinceEpoch(int64_t(gen.random()() % 4000000000ull), Qt::UTC);
        v.obis_code = gen.text();
        v.tag = gen.text();
        const QVariant values[] = {QVariant(),
                                   QVariant(gen.number()),
                                   QVariant(int(gen.random()())),
                                   QVariant(qlonglong(gen.random()())),
                                   QVariant(qulonglong(gen.random()())),
                                   QVariant(float(gen.number())),
                                   QVariant(bool(i % 2)),
                                   QVariant(gen.text()),
                                   QVariant(QStringList{gen.text(), gen.text()}),
                                   QVariant(std::numeric_limits<double>::quiet_NaN()),
                                   QVariant(-std::numeric_limits<double>::infinity()),
                                   QVariant(-0.0)};
        v.value = values[i % (sizeof values / sizeof values[0])];
        v.message_id = gen.text();
        ASSERT_EQ(model::json_text(v), qt_text(model::to_json(v))) << i;

        model::dev_event e;
        e.modem_id = int32_t(gen.random()());
        e.event_code = int32_t(gen.random()());
        e.parameter = int32_t(gen.random()());
        e.message = gen.text();
        e.message_id = gen.text();
        e.timestamp = v.timestamp;
        if (i % 3 == 0)
            e.extended_data = QJsonDocument(gen.object(2));
        ASSERT_EQ(model::json_text(e), qt_text(model::to_json(e))) << i;

        model::ul_message m = sample_message();
        m.unique_id = int64_t(gen.random()()) >> (gen.random()() % 64);
        m.phy = gen.text();
        m.hw_type = gen.text();
        m.data = i % 4 == 0 ? QJsonDocument() : QJsonDocument(gen.object(3));
        if (i % 5 == 0)
            m.extended_data = QJsonDocument(QJsonArray{gen.value(1)});
        m.tz_mismatch = i % 2;
        if (i % 7 == 0)
            m.ttl = QDateTime();
        ASSERT_EQ(model::json_text(m), qt_text(model::to_json(m))) << i;
    }
}

// A message whose data comes with its text (as the driver writes it) is written with that
// text in place of data; without it, data is serialized.
TEST(JsonText, DataTextWrittenInPlaceOfData) {
    model::ul_message m = sample_message();
    const QByteArray serialized = model::json_text(m);
    m.data_text = R"({"a":[1,"x",true],"v":1.5})";
    EXPECT_EQ(model::json_text(m), serialized);
    m.data_text = R"({"other":2})";
    EXPECT_EQ(model::json_text(m),
              QByteArray(serialized).replace(R"({"a":[1,"x",true],"v":1.5})", R"({"other":2})"));
}

TEST(JsonText, DatesAsQtWritesThemInIsoForm) {
    const QDateTime times[] = {
        QDateTime(QDate(2024, 2, 29), QTime(23, 59, 58), Qt::UTC),
        QDateTime(QDate(2000, 1, 1), QTime(0, 0), Qt::UTC),
        QDateTime(QDate(1, 12, 31), QTime(7, 8, 9), Qt::UTC),
        QDateTime(QDate(999, 3, 4), QTime(10, 11, 12, 999), Qt::UTC),  // milliseconds are not written
        QDateTime(QDate(9999, 12, 31), QTime(23, 59, 59), Qt::UTC),
        QDateTime(QDate(10000, 1, 1), QTime(0, 0), Qt::UTC),
        QDateTime(QDate(-5, 6, 7), QTime(1, 2, 3), Qt::UTC),
        QDateTime(QDate(2024, 6, 1), QTime(12, 0), Qt::LocalTime),
        QDateTime(QDate(2024, 6, 1), QTime(12, 0), Qt::OffsetFromUTC, 5400),
        QDateTime(),
    };
    for (const QDateTime& t : times) {
        QByteArray text;
        model::json_text_detail::append_iso_date(text, t);
        EXPECT_EQ(text, qt_text(QJsonObject{{"d", t.toString(Qt::ISODate)}}).mid(5).chopped(1))
            << t.toString().toStdString();
    }
    QByteArray text;
    model::json_text_detail::append_iso_date(text, QDateTime(QDate(2024, 2, 29), QTime(23, 59, 58), Qt::UTC));
    EXPECT_EQ(text, QByteArray(R"("2024-02-29T23:59:58Z")"));
}

TEST(JsonText, MemberNamesOfAnyLengthAndPlainText) {
    QByteArray text;
    {
        model::json_text_detail::object_writer o(text);
        o.ascii("a", "instantaneous");
        o.ascii("b_name_long_enough_to_need_more_than_the_short_buffer_of_the_writer_x", "");
        o.integer("c", 1);
    }
    EXPECT_EQ(text, qt_text(QJsonObject{
                        {"a", "instantaneous"},
                        {"b_name_long_enough_to_need_more_than_the_short_buffer_of_the_writer_x", ""},
                        {"c", 1}}));
}
