// The M-Bus driver plugin as the service loads it: factory, parse and explode as the
// engine calls them, downlink decisions, settings in the driver state, extraction
// from stored uplinks. Stores come from the in-memory database plugin.
#include <gtest/gtest.h>

#include <QCoreApplication>
#include <QFile>
#include <QJsonArray>
#include <QPluginLoader>

#include "interfaces/factories.h"

namespace {

const qint64 detected = 1700000000;
const int ttl_seconds = 86400;

template <class Factory>
Factory* load(const QString& file) {
    static std::vector<std::unique_ptr<QPluginLoader>> loaders;
    loaders.push_back(std::make_unique<QPluginLoader>(QString(QUILLON_BIN_DIR) + "/" + file));
    QObject* root = loaders.back()->instance();
    if (root == nullptr) {
        ADD_FAILURE() << loaders.back()->errorString().toStdString();
        return nullptr;
    }
    return qobject_cast<Factory*>(root);
}

QJsonObject shipped_config() {
    QFile f(QUILLON_BIN_DIR "/plug_mbus.json");
    EXPECT_TRUE(f.open(QIODevice::ReadOnly));
    return QJsonDocument::fromJson(f.readAll()).object();
}

model::ul_app_message uplink(const char* hex, int modem = 7, qint64 time = detected) {
    model::ul_app_message m;
    m.modem_id = modem;
    m.iterator = 3;
    m.payload = QByteArray::fromHex(hex);
    m.time_detected = QDateTime::fromSecsSinceEpoch(time, Qt::UTC);
    m.protocol = "proto7";
    m.hw_type = "wmbus";
    return m;
}

class MbusDriverTest : public ::testing::Test {
protected:
    void SetUp() override {
        m_factory = load<interfaces::IDriverFactory>("plug_mbus.so");
        ASSERT_NE(m_factory, nullptr);
        auto* db = load<interfaces::IDatabaseFactory>("plug_db_driver_dummy.so");
        ASSERT_NE(db, nullptr);
        m_messages = db->create_messages({}, &m_parent);
        m_state = db->create_state({}, &m_parent);
        const auto pairs = m_factory->supported(shipped_config());
        ASSERT_EQ(pairs.size(), 1);
        m_driver = m_factory->create(pairs[0], m_messages, db->create_eav({}, &m_parent), m_state, nullptr,
                                     ttl_seconds, 0);
        ASSERT_NE(m_driver, nullptr);
    }

    // Parses as the engine does and stores the message.
    model::ul_message store(const model::ul_app_message& in) {
        model::ul_message out;
        m_driver->parse(in, out);
        out.ttl = QDateTime::currentDateTimeUtc().addSecs(3600);
        m_messages->ul().save(out);
        return out;
    }

    QObject m_parent;
    interfaces::IDriverFactory* m_factory = nullptr;
    std::shared_ptr<interfaces::IMessagesDatabase> m_messages;
    std::shared_ptr<interfaces::IDriverState> m_state;
    std::shared_ptr<interfaces::IDriver> m_driver;
};

TEST_F(MbusDriverTest, ShippedConfiguration) {
    const QJsonObject c = shipped_config();
    EXPECT_EQ(c["protocol"].toString(), "proto7");
    EXPECT_EQ(c["instances"].toArray(), QJsonArray({"marl2"}));
    EXPECT_EQ(c["hw_pattern"].toString(), ".*");
    EXPECT_EQ(m_factory->name(), "mbus");
    EXPECT_TRUE(m_factory->describe()["configuration"].toObject().contains("hw_pattern"));
    EXPECT_EQ(m_driver->type_name(), "proto7");
    EXPECT_EQ(m_driver->hw_pattern(), ".*");
}

TEST_F(MbusDriverTest, SupportedPairsFollowTheConfiguration) {
    const QJsonObject c{{"protocol", "mb"}, {"instances", QJsonArray{"a", "b"}}, {"hw_pattern", "wmbus.*"}};
    const auto pairs = m_factory->supported(c);
    ASSERT_EQ(pairs.size(), 2);
    EXPECT_EQ(pairs[0], interfaces::protocol_instance("mb", "a"));
    EXPECT_EQ(pairs[1], interfaces::protocol_instance("mb", "b"));
    const auto driver = m_factory->create(pairs[1], nullptr, nullptr, nullptr, nullptr, 60, 0);
    EXPECT_EQ(driver->type_name(), "mb");
    EXPECT_EQ(driver->hw_pattern(), "wmbus.*");
}

TEST_F(MbusDriverTest, ParseFillsTheStoredMessage) {
    const QDateTime before = QDateTime::currentDateTimeUtc().addSecs(-1);
    model::ul_message out;
    m_driver->parse(uplink("78041339300000"), out);
    EXPECT_EQ(out.modem_id, 7);
    EXPECT_EQ(out.tag, "mbus");
    EXPECT_EQ(out.parse_status, "parsed");
    EXPECT_EQ(out.payload, QByteArray::fromHex("78041339300000"));
    EXPECT_EQ(out.time_detected.toSecsSinceEpoch(), detected);
    EXPECT_GE(out.timestamp, before);
    EXPECT_EQ(out.ttl.toSecsSinceEpoch(), detected + ttl_seconds);
    EXPECT_EQ(out.unique_id, Q_INT64_C(-829860926070106563));
    const QJsonArray records = out.data.object()["records"].toArray();
    ASSERT_EQ(records.size(), 1);
    EXPECT_EQ(records[0].toObject()["obis_code"].toString(), "volume");
    EXPECT_EQ(out.data.object()["header"].toObject()["type"].toString(), "none");
}

TEST_F(MbusDriverTest, ParseReportsErrorsAndEncryption) {
    model::ul_message out;
    m_driver->parse(uplink("5100"), out);
    EXPECT_EQ(out.parse_status, "error: unsupported CI field 0x51 at byte 0");
    m_driver->parse(uplink("7a01000005aabb"), out);
    EXPECT_EQ(out.parse_status, "encrypted");
    EXPECT_TRUE(out.data.object()["records"].toArray().isEmpty());
}

TEST_F(MbusDriverTest, ExplodeGivesEventsThenValues) {
    model::ul_message stored;
    m_driver->parse(uplink("7a01040000 041339300000 02fd170100"), stored);
    const model::eav_list eav = m_driver->explode(stored);
    ASSERT_EQ(eav.size(), 4u);
    auto it = eav.begin();
    EXPECT_EQ(std::get<model::dev_event>(*it++).event_code, 4);  // power low
    EXPECT_EQ(std::get<model::dev_event>(*it++).event_code, 8);  // error flag bit 0
    const model::dev_value& volume = std::get<model::dev_value>(*it++);
    EXPECT_EQ(volume.obis_code, "volume");
    EXPECT_EQ(volume.value.toDouble(), 12.345);
    EXPECT_EQ(volume.tag, "mbus");
    EXPECT_EQ(volume.modem_id, 7);
    EXPECT_EQ(volume.timestamp.toSecsSinceEpoch(), detected);
    EXPECT_EQ(volume.ttl.toSecsSinceEpoch(), detected + ttl_seconds);
    EXPECT_EQ(volume.message_id, QString::number(quint64(stored.unique_id), 16));
    EXPECT_EQ(std::get<model::dev_value>(*it).obis_code, "error_flags");
}

TEST_F(MbusDriverTest, ExplodeKeepsValuesBeforeAFault) {
    model::ul_message stored;
    m_driver->parse(uplink("78041339300000 04133930"), stored);
    EXPECT_EQ(stored.parse_status, "error: truncated data field: 4 bytes needed, 2 left, at byte 9");
    EXPECT_EQ(m_driver->explode(stored).size(), 1u);
}

TEST_F(MbusDriverTest, DownlinkDecisions) {
    model::dl_message dl;
    dl.payload = QByteArray::fromHex("0102ff");
    dl.dl_status = model::PENDING;
    EXPECT_EQ(m_driver->encode_dl(dl, {"proto7", "wmbus"}), dl.payload);

    const controller_event ul = model::ul_message();
    EXPECT_FALSE(m_driver->needs_dl_processing(ul));
    EXPECT_EQ(m_driver->new_dl_status(ul, dl), model::PENDING);
    model::dl_event report;
    const std::pair<const char*, int> expected[] = {{"dl_success", model::EXECUTED},
                                                    {"dl_fault", model::TIMEOUT},
                                                    {"dl_queued", model::WAIT_DATA},
                                                    {"dl_inprocess", model::WAIT_DATA},
                                                    {"dl_other", model::PENDING}};
    for (const auto& [type, status] : expected) {
        report.msg_type = type;
        EXPECT_TRUE(m_driver->needs_dl_processing(report));
        EXPECT_EQ(m_driver->new_dl_status(report, dl), status) << type;
    }
    EXPECT_FALSE(m_driver->controller(ul));
    EXPECT_TRUE(m_driver->custom_query(model::custom_query()).isEmpty());
}

TEST_F(MbusDriverTest, SettingsAreKeptInTheDriverState) {
    model::setting_item scalar{"interval", QJsonDocument(), QVariant(900)};
    model::setting_item object{"window", QJsonDocument(QJsonObject{{"from", 1}}), QVariant()};
    m_driver->write_settings({{5, {scalar, object}}});
    EXPECT_EQ(m_state->get(5, "settings").toObject()["interval"].toInt(), 900);

    QList<model::setting_result> named;
    m_driver->read_settings(named, {5}, {"interval", "unknown"});
    ASSERT_EQ(named.size(), 2);
    EXPECT_EQ(named[0].value.toInt(), 900);
    EXPECT_FALSE(named[1].value.isValid() && !named[1].value.isNull());
    QList<model::setting_result> all;
    m_driver->read_settings(all, {5}, {});
    ASSERT_EQ(all.size(), 1);
    EXPECT_EQ(all[0].value.toMap()["window"].toMap()["from"].toInt(), 1);
}

TEST_F(MbusDriverTest, CalibrationsAreKeptInTheDriverState) {
    m_driver->write_calibs(
        {{6, {{"volume", "offset", 0.5}, {"volume", "gain", 1.02}, {"energy", "gain", 2}}}});
    QList<model::calib_result> all;
    m_driver->read_calibs(all, {6}, {});
    EXPECT_EQ(all.size(), 3);
    QList<model::calib_result> one;
    m_driver->read_calibs(one, {6}, {"volume"});
    ASSERT_EQ(one.size(), 2);
    EXPECT_EQ(one[0].group, "volume");
    EXPECT_EQ(one[0].name, "gain");
    EXPECT_DOUBLE_EQ(one[0].value, 1.02);
}

TEST_F(MbusDriverTest, ExtractDecodesStoredUplinksAgain) {
    const qint64 now = QDateTime::currentSecsSinceEpoch();
    const model::ul_message first = store(uplink("78041339300000 02fd170300", 9, now - 100));
    store(uplink("7a01040000 0c1378563412", 9, now - 50));

    model::roll_query roll;
    roll.modem_id = {9};
    roll.from = QDateTime::fromSecsSinceEpoch(0, Qt::UTC);
    roll.to = QDateTime::currentDateTimeUtc();
    model::per_modem<model::ul_message> messages;
    m_driver->extract_roll(messages, roll);
    ASSERT_EQ(messages[9].size(), 2u);
    for (const model::ul_message& m : messages[9]) {
        EXPECT_EQ(m.parse_status, "parsed");
        EXPECT_EQ(m.tag, "mbus");
        EXPECT_FALSE(m.data.object()["records"].toArray().isEmpty());
    }

    model::value_query q;
    q.modem_id = {9};
    q.from = roll.from;
    q.to = roll.to;
    model::per_modem<model::dev_value> values;
    m_driver->extract_values(values, q);
    ASSERT_EQ(values[9].size(), 3u);

    q.obis_codes = QStringList{"volume"};
    values.clear();
    m_driver->extract_values(values, q);
    ASSERT_EQ(values[9].size(), 2u);
    EXPECT_DOUBLE_EQ(values[9][0].value.toDouble() + values[9][1].value.toDouble(), 12.345 + 12345.678);
    const auto& from_first = values[9][0].value.toDouble() == 12.345 ? values[9][0] : values[9][1];
    EXPECT_EQ(from_first.message_id, QString::number(quint64(first.unique_id), 16));

    q.obis_codes.clear();
    q.tag = QStringList{"other"};
    values.clear();
    m_driver->extract_values(values, q);
    EXPECT_TRUE(values[9].empty());

    q.tag.clear();
    model::per_modem<model::dev_event> events;
    m_driver->extract_events(events, q);
    ASSERT_EQ(events[9].size(), 3u);  // flags bits 0 and 1, power low

    // A limit caps the records per modem; 0 means no limit, as in the stores.
    q.limit = 1;
    values.clear();
    m_driver->extract_values(values, q);
    EXPECT_EQ(values[9].size(), 1u);
    q.limit = 0;
    values.clear();
    m_driver->extract_values(values, q);
    EXPECT_EQ(values[9].size(), 3u);
    events.clear();
    m_driver->extract_events(events, q);
    EXPECT_EQ(events[9].size(), 3u);
}

TEST_F(MbusDriverTest, MetadataDescribesQuantitiesEventsAndControls) {
    const model::device_description d = m_driver->metadata("wmbus");
    bool volume = false;
    int events = 0;
    int controls = 0;
    for (const model::device_description_entry& e : d) {
        if (const auto* p = std::get_if<model::device_parameter>(&e)) {
            EXPECT_FALSE(p->write);
            EXPECT_FALSE(p->calib);
            EXPECT_LE(p->min_value, p->max_value);
            if (p->name == "volume") {
                volume = true;
                EXPECT_EQ(p->unit, "m3");
                EXPECT_EQ(p->mul, 1);
                EXPECT_EQ(p->div, 1);
            }
        } else if (const auto* ev = std::get_if<model::device_event_description>(&e)) {
            EXPECT_EQ(ev->code, ++events);
        } else {
            ++controls;
        }
    }
    EXPECT_TRUE(volume);
    EXPECT_EQ(events, 8);
    EXPECT_EQ(controls, 1);
}

}  // namespace
