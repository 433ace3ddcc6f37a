// Runs every sample under data/: {"kind": ..., "input": {...}, "expected": {...}}.
// Readers are checked through a field-by-field projection of the record written here,
// so the expected values in the files are what each field must hold.
#include <gtest/gtest.h>

#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <functional>
#include <map>

#include "model/json.h"

namespace {

QJsonObject time_of(const QDateTime& t) {
    const char* spec = t.timeSpec() == Qt::UTC ? "UTC" : t.timeSpec() == Qt::LocalTime ? "local" : "other";
    return QJsonObject{{"secs", t.toSecsSinceEpoch()}, {"spec", spec}};
}

QString hex_of(const QByteArray& b) {
    return QString::fromLatin1(b.toHex());
}

QJsonArray char_codes(const QString& s) {
    QJsonArray codes;
    for (QChar c : s)
        codes.append(c.unicode());
    return codes;
}

QJsonObject project_ul_app(const QJsonObject& in) {
    const model::ul_app_message m = model::ul_app_message_from_json(in);
    return {{"dl_mode", m.dl_mode},
            {"dl_phy", m.dl_phy},
            {"last_dl_bs", m.last_dl_bs},
            {"last_dl_bs_aver_busyness", m.last_dl_bs_aver_busyness},
            {"last_dl_bs_busyness", m.last_dl_bs_busyness},
            {"last_success_dl_ts", m.last_success_dl_ts},
            {"modem_id", m.modem_id},
            {"payload", hex_of(m.payload)},
            {"station_id", m.station_id},
            {"phy", m.phy},
            {"rssi", m.rssi},
            {"snr", m.snr},
            {"iterator", m.iterator},
            {"time_detected", time_of(m.time_detected)},
            {"time_saved", time_of(m.time_saved)},
            {"hw_type", m.hw_type},
            {"protocol", m.protocol},
            {"bs_tz", m.bs_tz},
            {"tz_mismatch", m.tz_mismatch}};
}

QJsonObject project_ul_hb(const QJsonObject& in) {
    const model::ul_hb_message m = model::ul_hb_message_from_json(in);
    return {{"modem_id", m.modem_id},
            {"payload", hex_of(m.payload)},
            {"station_id", m.station_id},
            {"phy", m.phy},
            {"rssi", m.rssi},
            {"snr", m.snr},
            {"iterator", m.iterator},
            {"time_detected", time_of(m.time_detected)},
            {"time_saved", time_of(m.time_saved)},
            {"hw_type", m.hw_type},
            {"protocol", m.protocol},
            {"bs_tz", m.bs_tz},
            {"temperature", m.temperature},
            {"voltage", m.voltage}};
}

QJsonObject project_ul_message(const QJsonObject& in) {
    const model::ul_message m = model::ul_message_from_json(in);
    return {{"unique_id", static_cast<qint64>(m.unique_id)},
            {"ttl", time_of(m.ttl)},
            {"timestamp", time_of(m.timestamp)},
            {"time_detected", time_of(m.time_detected)},
            {"bs_timezone_offset", m.bs_timezone_offset},
            {"tag", m.tag},
            {"station_id", m.station_id},
            {"snr", m.snr},
            {"rssi", m.rssi},
            {"protocol", m.protocol},
            {"phy", m.phy},
            {"parse_status", m.parse_status},
            {"modem_id", m.modem_id},
            {"hw_type_codes", char_codes(m.hw_type)},
            {"extended_data", m.extended_data.object()},
            {"data", m.data.object()},
            {"payload", hex_of(m.payload)},
            {"tz_mismatch", m.tz_mismatch}};
}

QJsonObject project_dl_request(const QJsonObject& in) {
    const QDateTime before = QDateTime::currentDateTimeUtc();
    const model::dl_message m = model::dl_message_from_request(in);
    const QDateTime after = QDateTime::currentDateTimeUtc();
    const bool stamped_now = m.timestamp.timeSpec() == Qt::UTC && m.timestamp >= before.addSecs(-1) &&
                             m.timestamp <= after.addSecs(1);
    return {{"f_ack", m.f_ack},
            {"f_system", m.f_system},
            {"station_id", m.station_id},
            {"frequency", m.frequency},
            {"dl_phy", m.dl_phy},
            {"modem_id", m.modem_id},
            {"timeout", m.timeout},
            {"ttl_valid", m.ttl.isValid()},
            {"timestamp_utc_now", stamped_now},
            {"db_id", m.db_id},
            {"api_key", m.api_key},
            {"user_id", m.user_id},
            {"dl_status", m.dl_status},
            {"data", m.data},
            {"payload", hex_of(m.payload)},
            {"protocol", m.protocol}};
}

QJsonObject project_custom_query(const QJsonObject& in) {
    const model::custom_query q = model::custom_query_from_json(in);
    QJsonObject query;
    QJsonArray query_order;
    for (const auto& [name, text] : q.query) {
        query[name] = text;
        query_order.append(name);
    }
    QJsonArray ids;
    for (int id : q.modem_id)
        ids.append(id);
    return {{"query", query}, {"query_order", query_order}, {"body", q.body},
            {"type", q.type}, {"instance", q.instance},     {"modem_id", ids}};
}

// Queue sets are checked by reading the input and writing the record back out.
QJsonObject normalize_dl_queues(const QJsonObject& in) {
    return model::to_json(model::dl_queues_from_json(in));
}

const std::map<QString, std::function<QJsonObject(const QJsonObject&)>> converters = {
    {"ul_app", project_ul_app},
    {"ul_hb", project_ul_hb},
    {"ul_message", project_ul_message},
    {"dl_request", project_dl_request},
    {"custom_query", project_custom_query},
    {"dl_queues", normalize_dl_queues},
    {"radio_summary", model::modem_radio_summary},
};

}  // namespace

TEST(JsonSamples, EverySampleGivesItsExpectedRecord) {
    const QDir dir(QStringLiteral(QUILLON_SOURCE_DIR "/tests/model/data"));
    const QStringList files = dir.entryList({"*.json"}, QDir::Files, QDir::Name);
    ASSERT_GE(files.size(), 7) << "samples missing in " << dir.path().toStdString();

    for (const QString& name : files) {
        SCOPED_TRACE(name.toStdString());
        QFile file(dir.filePath(name));
        ASSERT_TRUE(file.open(QIODevice::ReadOnly));
        QJsonParseError error{};
        const QJsonObject sample = QJsonDocument::fromJson(file.readAll(), &error).object();
        ASSERT_EQ(error.error, QJsonParseError::NoError) << error.errorString().toStdString();

        const auto converter = converters.find(sample["kind"].toString());
        ASSERT_NE(converter, converters.end()) << "unknown kind " << sample["kind"].toString().toStdString();
        const QJsonObject actual = converter->second(sample["input"].toObject());
        const QJsonObject expected = sample["expected"].toObject();
        EXPECT_EQ(actual, expected) << "actual:   "
                                    << QJsonDocument(actual).toJson(QJsonDocument::Compact).toStdString()
                                    << "\nexpected: "
                                    << QJsonDocument(expected).toJson(QJsonDocument::Compact).toStdString();
    }
}
