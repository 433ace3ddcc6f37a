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
        m_eav = db->create_eav({}, &m_parent);
        // The engine's DL sending in short: the driver builds the bytes, the message is stored.
        auto send = [this](const model::dl_message& dl) {
            model::dl_message stored = dl;
            stored.payload = m_driver->encode_dl(dl, {"proto7", "wmbus"});
            m_messages->dl().save(stored);
            m_sent.push_back(stored);
            return QJsonObject{{"ok", true}, {"bd_id", stored.db_id}};
        };
        m_driver = m_factory->create(pairs[0], m_messages, m_eav, m_state, send, ttl_seconds, 0);
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
    std::shared_ptr<interfaces::IEAVDatabase> m_eav;
    std::shared_ptr<interfaces::IDriver> m_driver;
    std::vector<model::dl_message> m_sent;
};

model::dl_message command(int modem, const QJsonObject& data, int timeout = 3600) {
    model::dl_message dl;
    dl.modem_id = modem;
    dl.data = data;
    dl.timeout = timeout;
    dl.timestamp = QDateTime::currentDateTimeUtc();
    dl.ttl = dl.timestamp.addSecs(86400);
    return dl;
}

model::dl_event report(const char* type) {
    model::dl_event e;
    e.msg_type = type;
    return e;
}

const controller_event tick = model::ul_message();

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
    // The text goes to the store and the clients; the document is built only when read.
    EXPECT_FALSE(out.data.is_built());
    const QJsonArray records = out.data.object()["records"].toArray();
    EXPECT_TRUE(out.data.is_built());
    EXPECT_EQ(out.data.toJson(QJsonDocument::Compact), out.data_text);
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
        {{6, {{"volume", "offset", 0.5}, {"volume", "factor", 1.02}, {"energy", "factor", 2}}}});
    QList<model::calib_result> all;
    m_driver->read_calibs(all, {6}, {});
    EXPECT_EQ(all.size(), 3);
    QList<model::calib_result> one;
    m_driver->read_calibs(one, {6}, {"volume"});
    ASSERT_EQ(one.size(), 2);
    EXPECT_EQ(one[0].group, "volume");
    EXPECT_EQ(one[0].name, "factor");
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
            EXPECT_EQ(p->write, p->name == "bus_address") << p->name.toStdString();
            EXPECT_TRUE(p->calib);
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

namespace {

TEST_F(MbusDriverTest, CommandsAreEncodedFromTheData) {
    // 2024-03-15 13:45 UTC as type F, worked out by hand: 2d 0d 0f 33.
    const QByteArray bytes = m_driver->encode_dl(command(11, {{"cmd", "set_datetime"}, {"time", 1710510300}}),
                                                 {"proto7", "wmbus"});
    EXPECT_EQ(bytes.toHex(), "51046d2d0d0f33");
    EXPECT_THROW(m_driver->encode_dl(command(11, {{"cmd", "open"}}), {"proto7", "wmbus"}),
                 std::invalid_argument);
    // Data without a command: the payload as it is.
    model::dl_message plain = command(11, {{"raw_payload", "0a0b"}});
    plain.payload = QByteArray::fromHex("0a0b");
    EXPECT_EQ(m_driver->encode_dl(plain, {"proto7", "wmbus"}), plain.payload);
}

TEST_F(MbusDriverTest, CommandStatusesFollowReportsAndConfirmingUplinks) {
    const model::dl_message clock = command(11, {{"cmd", "set_datetime"}, {"time", 1710510300}});
    const model::dl_message address = command(11, {{"cmd", "set_primary_address"}, {"address", 5}});
    m_driver->encode_dl(clock, {"proto7", "wmbus"});
    EXPECT_EQ(m_driver->new_dl_status(report("dl_queued"), clock), model::PENDING);
    EXPECT_EQ(m_driver->new_dl_status(report("dl_inprocess"), clock), model::PENDING);
    EXPECT_EQ(m_driver->new_dl_status(report("dl_success"), clock), model::EXECUTED);
    EXPECT_EQ(m_driver->new_dl_status(report("dl_fault"), clock), model::TIMEOUT);
    EXPECT_EQ(m_driver->new_dl_status(report("dl_success"), address), model::WAIT_DATA);

    // An open command makes the modem's uplinks worth a look.
    model::ul_message reports_5;
    m_driver->parse(uplink("78017a05", 11), reports_5);  // bus_address 5
    model::ul_message reports_6;
    m_driver->parse(uplink("78017a06", 11), reports_6);
    EXPECT_TRUE(m_driver->needs_dl_processing(controller_event{reports_5}));
    model::dl_message delivered = address;
    delivered.dl_status = model::WAIT_DATA;
    EXPECT_EQ(m_driver->new_dl_status(controller_event{reports_6}, delivered), model::WAIT_DATA);
    EXPECT_EQ(m_driver->new_dl_status(controller_event{reports_5}, delivered), model::EXECUTED);
    EXPECT_EQ(m_driver->new_dl_status(controller_event{reports_5}, address),
              model::PENDING);  // not yet delivered
    EXPECT_EQ(m_driver->new_dl_status(controller_event{reports_5}, clock), model::PENDING);
}

TEST_F(MbusDriverTest, ControllerTimesOutCommandsPastTheirTimeout) {
    model::dl_message late = command(12, {{"cmd", "application_reset"}}, 10);
    late.timestamp = QDateTime::currentDateTimeUtc().addSecs(-100);
    model::dl_message in_time = command(12, {{"cmd", "application_reset"}}, 3600);
    in_time.timestamp = late.timestamp;
    model::dl_message plain = command(12, {{"raw_payload", "00"}}, 10);  // the engine's own business
    plain.timestamp = late.timestamp;
    for (model::dl_message* m : {&late, &in_time, &plain}) {
        m->payload = m_driver->encode_dl(*m, {"proto7", "wmbus"});
        m_messages->dl().save(*m);
    }
    EXPECT_TRUE(m_driver->controller(tick));
    EXPECT_EQ(m_messages->dl().get(late.db_id).dl_status, model::TIMEOUT);
    EXPECT_EQ(m_messages->dl().get(in_time.db_id).dl_status, model::PENDING);
    EXPECT_EQ(m_messages->dl().get(plain.db_id).dl_status, model::PENDING);
    model::ul_message any;
    any.modem_id = 12;
    EXPECT_TRUE(m_driver->needs_dl_processing(controller_event{any}));

    // Once nothing is open the modem is no longer watched.
    m_messages->dl().set_status(in_time.db_id, model::EXECUTED);
    m_driver->controller(tick);
    EXPECT_FALSE(m_driver->needs_dl_processing(controller_event{any}));
    EXPECT_FALSE(m_driver->controller(tick));
}

TEST_F(MbusDriverTest, WritableSettingIsPendingUntilAnUplinkReportsIt) {
    m_driver->write_settings({{13,
                               {model::setting_item{"bus_address", QJsonDocument(), QVariant(5)},
                                model::setting_item{"interval", QJsonDocument(), QVariant(900)}}}});
    ASSERT_EQ(m_sent.size(), 1u);
    EXPECT_EQ(m_sent[0].modem_id, 13);
    EXPECT_EQ(m_sent[0].payload.toHex(), "51017a05");
    EXPECT_EQ(m_sent[0].timeout, 86400);

    QList<model::setting_result> read;
    m_driver->read_settings(read, {13}, {"bus_address", "interval"});
    ASSERT_EQ(read.size(), 2);
    const QVariantMap pending = read[0].value.toMap();
    EXPECT_EQ(pending["value"].toInt(), 5);
    EXPECT_TRUE(pending["pending"].toBool());
    EXPECT_EQ(pending["db_id"].toString(), m_sent[0].db_id);
    EXPECT_EQ(read[1].value.toInt(), 900);  // kept for the client, not sent

    // Its downlink timed out: the value reads as failed until it is written again.
    m_messages->dl().set_status(m_sent[0].db_id, model::TIMEOUT);
    read.clear();
    m_driver->read_settings(read, {13}, {"bus_address"});
    ASSERT_EQ(read.size(), 1);
    EXPECT_TRUE(read[0].value.toMap()["failed"].toBool());
    EXPECT_FALSE(read[0].value.toMap().contains("pending"));
    m_messages->dl().set_status(m_sent[0].db_id, model::WAIT_DATA);

    model::ul_message other;
    m_driver->parse(uplink("78017a06", 13), other);
    EXPECT_FALSE(m_driver->controller(controller_event{other}));
    model::ul_message confirming;
    m_driver->parse(uplink("78017a05", 13), confirming);
    EXPECT_TRUE(m_driver->controller(controller_event{confirming}));
    read.clear();
    m_driver->read_settings(read, {13}, {"bus_address"});
    ASSERT_EQ(read.size(), 1);
    EXPECT_EQ(read[0].value.toInt(), 5);
    EXPECT_FALSE(read[0].value.toMap().contains("pending"));
}

TEST_F(MbusDriverTest, ASecondWriteEndsTheEarlierDownlinkAndOnlyTheNewestValueConfirms) {
    m_driver->write_settings({{13, {model::setting_item{"bus_address", QJsonDocument(), QVariant(5)}}}});
    m_driver->write_settings({{13, {model::setting_item{"bus_address", QJsonDocument(), QVariant(7)}}}});
    ASSERT_EQ(m_sent.size(), 2u);
    EXPECT_EQ(m_sent[1].payload.toHex(), "51017a07");
    EXPECT_EQ(m_messages->dl().get(m_sent[0].db_id).dl_status, model::TIMEOUT);
    EXPECT_EQ(m_messages->dl().get(m_sent[1].db_id).dl_status, model::PENDING);

    // A late delivery report of the first write leaves it ended.
    const model::dl_message first = m_messages->dl().get(m_sent[0].db_id);
    model::dl_event late;
    late.modem_id = 13;
    late.msg_type = "dl_success";
    late.status_id = first.db_id;
    EXPECT_EQ(m_driver->new_dl_status(controller_event{late}, first), model::TIMEOUT);

    // The meter reports the first value: the newest write stays pending.
    m_messages->dl().set_status(m_sent[1].db_id, model::WAIT_DATA);
    model::ul_message old_value;
    m_driver->parse(uplink("78017a05", 13), old_value);
    EXPECT_FALSE(m_driver->controller(controller_event{old_value}));
    QList<model::setting_result> read;
    m_driver->read_settings(read, {13}, {"bus_address"});
    ASSERT_EQ(read.size(), 1);
    EXPECT_EQ(read[0].value.toMap()["value"].toInt(), 7);
    EXPECT_TRUE(read[0].value.toMap()["pending"].toBool());

    model::ul_message new_value;
    m_driver->parse(uplink("78017a07", 13), new_value);
    EXPECT_TRUE(m_driver->controller(controller_event{new_value}));
    read.clear();
    m_driver->read_settings(read, {13}, {"bus_address"});
    EXPECT_EQ(read[0].value.toInt(), 7);
}

TEST_F(MbusDriverTest, BadSettingsAreRefusedBeforeAnythingIsSent) {
    EXPECT_THROW(m_driver->write_settings({{13, {model::setting_item{"bus_address", QJsonDocument(), 300}}}}),
                 std::invalid_argument);
    EXPECT_THROW(m_driver->write_settings({{13,
                                            {model::setting_item{"interval", QJsonDocument(), 1},
                                             model::setting_item{"volume", QJsonDocument(), 1}}}}),
                 std::invalid_argument);
    EXPECT_TRUE(m_sent.empty());
    EXPECT_TRUE(m_state->get(13, "settings").toObject().isEmpty());
}

TEST_F(MbusDriverTest, CalibrationAppliesLiveAndOnExtract) {
    m_driver->write_calibs({{14, {{"volume", "factor", 2}, {"volume", "offset", 0.5}}}});
    EXPECT_THROW(m_driver->write_calibs({{14, {{"volume", "gain", 2}}}}), std::invalid_argument);
    const model::ul_message stored =
        store(uplink("78041339300000", 14, QDateTime::currentSecsSinceEpoch() - 10));
    const model::eav_list live = m_driver->explode(stored);
    ASSERT_EQ(live.size(), 1u);
    const auto& v = std::get<model::dev_value>(live.front());
    EXPECT_DOUBLE_EQ(v.value.toDouble(), 25.19);  // 12.345 * 2 + 0.5
    EXPECT_EQ(v.tag, "mbus.calibrated");

    model::value_query q;
    q.modem_id = {14};
    q.from = QDateTime::fromSecsSinceEpoch(0, Qt::UTC);
    q.to = QDateTime::currentDateTimeUtc();
    q.tag = QStringList{"mbus"};
    model::per_modem<model::dev_value> values;
    m_driver->extract_values(values, q);
    ASSERT_EQ(values[14].size(), 1u);
    EXPECT_DOUBLE_EQ(values[14][0].value.toDouble(), 25.19);

    QList<model::calib_result> read;
    m_driver->read_calibs(read, {14}, {"volume"});
    EXPECT_EQ(read.size(), 2);
}

TEST_F(MbusDriverTest, CustomRequestsLastValuesAndState) {
    const QDateTime t0 = QDateTime::currentDateTimeUtc().addSecs(-100);
    QList<model::dev_value> values;
    for (int i = 0; i < 3; ++i) {
        model::dev_value v;
        v.modem_id = 15;
        v.obis_code = i < 2 ? "volume" : "energy";
        v.value = 10.0 + i;
        v.timestamp = t0.addSecs(i);
        v.tag = "mbus";
        v.ttl = t0.addSecs(86400);
        values << v;
    }
    m_eav->records().save_values(values);
    model::custom_query q;
    q.type = "last_values";
    q.modem_id = {15};
    const QJsonObject last = m_driver->custom_query(q)["15"].toObject();
    EXPECT_EQ(last.keys(), QStringList({"energy", "volume"}));
    EXPECT_EQ(last["volume"].toObject()["value"].toDouble(), 11.0);
    EXPECT_EQ(last["energy"].toObject()["value"].toDouble(), 12.0);

    m_driver->write_calibs({{15, {{"volume", "factor", 3}}}});
    q.type = "state";
    EXPECT_EQ(m_driver->custom_query(q)["15"].toObject()["calib"].toObject()["volume"].toObject()["factor"],
              3);
    q.type = "nonsense";
    EXPECT_THROW(m_driver->custom_query(q), std::invalid_argument);
}

}  // namespace
