// Runs every known-good payload of data/mbus_*.json through the decoder: each case
// gives the payload, the expected parse status and the expected (obis_code, value) list;
// optionally the record count, the events as (code, parameter), the value timestamps and,
// for encrypted payloads, the meter's registry entry ("meter").
#include <gtest/gtest.h>

#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <cmath>

#include "decoder.h"
#include "eav.h"
#include "stored_message.h"

namespace {

struct known_case {
    QString file;
    QJsonObject data;
    qint64 time_detected = 0;
};

std::vector<known_case> load_cases() {
    std::vector<known_case> out;
    const QDir dir(QUILLON_SOURCE_DIR "/tests/drivers/data");
    for (const QString& name : dir.entryList({"mbus_*.json"}, QDir::Files, QDir::Name)) {
        QFile f(dir.filePath(name));
        if (!f.open(QIODevice::ReadOnly)) {
            ADD_FAILURE() << "cannot open " << name.toStdString();
            continue;
        }
        QJsonParseError err;
        const QJsonObject root = QJsonDocument::fromJson(f.readAll(), &err).object();
        if (err.error != QJsonParseError::NoError) {
            ADD_FAILURE() << name.toStdString() << ": " << err.errorString().toStdString();
            continue;
        }
        for (const QJsonValue& c : root["cases"].toArray()) {
            out.push_back({name, c.toObject(), qint64(root["time_detected"].toDouble(1700000000))});
        }
    }
    return out;
}

QByteArray payload_of(const QJsonObject& c) {
    QString text = c["hex"].toString();
    text.remove(' ');
    return QByteArray::fromHex(text.toLatin1());
}

void check_case(const known_case& kc) {
    const QJsonObject& c = kc.data;
    const std::string where = kc.file.toStdString() + ": " + c["name"].toString().toStdString();
    SCOPED_TRACE(where);
    // "meter": the modem's registry entry (key and address) for encrypted payloads.
    const mbus::decode_result r =
        mbus::decode(payload_of(c), model::meter_link_from_json(c["meter"].toObject()));
    EXPECT_EQ(r.status.toStdString(), c["parse_status"].toString().toStdString());
    EXPECT_EQ(mbus::message_data_text(r),
              QJsonDocument(mbus::message_data(r)).toJson(QJsonDocument::Compact));
    if (c.contains("records")) {
        EXPECT_EQ(int(r.records.size()), c["records"].toInt());
    }
    if (c.contains("record_quantities")) {
        const QJsonArray quantities = c["record_quantities"].toArray();
        ASSERT_EQ(int(r.records.size()), quantities.size());
        for (int i = 0; i < quantities.size(); ++i) {
            EXPECT_EQ(r.records[size_t(i)].info.quantity.toStdString(),
                      quantities[i].toString().toStdString());
        }
    }

    mbus::message_context ctx;
    ctx.modem_id = 7;
    ctx.time_detected = QDateTime::fromSecsSinceEpoch(kc.time_detected, Qt::UTC);
    ctx.tag = "mbus";
    const QList<model::dev_value> values = mbus::to_values(r, ctx);
    const QJsonArray expected = c["values"].toArray();
    ASSERT_EQ(values.size(), expected.size());
    for (int i = 0; i < values.size(); ++i) {
        const QJsonArray pair = expected[i].toArray();
        EXPECT_EQ(values[i].obis_code.toStdString(), pair[0].toString().toStdString());
        const double want = pair[1].toDouble();
        EXPECT_NEAR(values[i].value.toDouble(), want, std::fabs(want) * 1e-12 + 1e-12) << "value " << i;
    }
    if (c.contains("timestamps")) {
        const QJsonArray times = c["timestamps"].toArray();
        ASSERT_EQ(values.size(), times.size());
        for (int i = 0; i < values.size(); ++i) {
            EXPECT_EQ(values[i].timestamp.toSecsSinceEpoch(), qint64(times[i].toDouble()))
                << "timestamp " << i;
        }
    }
    if (c.contains("events")) {
        const QList<model::dev_event> events = mbus::to_events(r, ctx);
        const QJsonArray want = c["events"].toArray();
        ASSERT_EQ(events.size(), want.size());
        for (int i = 0; i < events.size(); ++i) {
            EXPECT_EQ(events[i].event_code, want[i].toArray()[0].toInt()) << "event " << i;
            EXPECT_EQ(events[i].parameter, want[i].toArray()[1].toInt()) << "event " << i;
        }
    }
}

TEST(MbusKnownGood, EveryDataFileCase) {
    const std::vector<known_case> cases = load_cases();
    ASSERT_GT(cases.size(), 100u);
    for (const known_case& kc : cases) {
        check_case(kc);
    }
}

}  // namespace
