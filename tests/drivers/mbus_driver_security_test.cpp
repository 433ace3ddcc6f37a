// The M-Bus driver plugin with the in-memory registry: keys and meter addresses come from
// the registry at each telegram, problems are logged once per modem, and no key reaches
// the log or what the driver returns.
#include <gtest/gtest.h>

#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QPluginLoader>

#include "interfaces/factories.h"

namespace {

const qint64 detected = 1700000000;
const char* key5 = "0f1e2d3c4b5a69788796a5b4c3d2e1f0";
// Mode 5, long header, two blocks (see data/mbus_security.json): five values.
const char* mode5 =
    "7278563412"
    "2d2c1b072a002005"
    "fcc7049b3f17fddeb956afd493c5d05b36f06b808649b632525318101e8eaa5f"
    "02fd746d01";
// The published short-header example: AMB 12345678, version 0, type 3, key 00 .. 0F.
const char* published =
    "7a35001005"
    "1e34c77cfe6c59b154b663297fe6c3f7";
const char* published_key = "000102030405060708090a0b0c0d0e0f";

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

model::ul_app_message uplink(const char* hex, int modem) {
    model::ul_app_message m;
    m.modem_id = modem;
    m.iterator = 1;
    m.payload = QByteArray::fromHex(hex);
    m.time_detected = QDateTime::fromSecsSinceEpoch(detected, Qt::UTC);
    m.protocol = "proto7";
    m.hw_type = "wmbus";
    return m;
}

class MbusDriverSecurity : public ::testing::Test {
protected:
    void SetUp() override {
        auto* factory = load<interfaces::IDriverFactory>("plug_mbus.so");
        auto* db = load<interfaces::IDatabaseFactory>("plug_db_driver_dummy.so");
        ASSERT_TRUE(factory != nullptr && db != nullptr);
        const QJsonObject seed{
            {"devices",
             QJsonObject{{"1", QJsonObject{{"protocol", "proto7"}, {"hw_type", "wmbus"}, {"aes_key", key5}}},
                         {"2", QJsonObject{{"protocol", "proto7"}, {"hw_type", "wmbus"}}},
                         {"3", QJsonObject{{"protocol", "proto7"},
                                           {"hw_type", "wmbus"},
                                           {"aes_key", published_key},
                                           {"manufacturer", "AMB"},
                                           {"identification", "12345678"},
                                           {"version", 0},
                                           {"medium", 3}}}}}};
        m_messages = db->create_messages(seed, &m_parent);
        m_eav = db->create_eav(seed, &m_parent);
        m_state = db->create_state(seed, &m_parent);
        m_clients = db->create_clients(seed, &m_parent);
        const auto pairs = factory->supported({{"protocol", "proto7"}, {"instances", QJsonArray{"marl2"}}});
        ASSERT_EQ(pairs.size(), 1);
        factory->prepare(pairs[0], m_messages, m_eav, m_state, m_clients);
        m_driver = factory->create(
            pairs[0], m_messages, m_eav, m_state, [](const model::dl_message&) { return QJsonObject(); },
            86400, 0);
        ASSERT_NE(m_driver, nullptr);
        m_driver->set_log(
            [this](int level, const QString& text) { m_log << QString("%1 %2").arg(level).arg(text); });
    }

    model::ul_message parse(const char* hex, int modem) {
        model::ul_message out;
        m_driver->parse(uplink(hex, modem), out);
        out.ttl = QDateTime::currentDateTimeUtc().addSecs(3600);
        m_messages->ul().save(out);
        return out;
    }

    static int values_in(const model::eav_list& records) {
        int count = 0;
        for (const auto& r : records) {
            count += std::holds_alternative<model::dev_value>(r) ? 1 : 0;
        }
        return count;
    }

    QObject m_parent;
    std::shared_ptr<interfaces::IMessagesDatabase> m_messages;
    std::shared_ptr<interfaces::IEAVDatabase> m_eav;
    std::shared_ptr<interfaces::IDriverState> m_state;
    std::shared_ptr<interfaces::IDeviceClientsDatabase> m_clients;
    std::shared_ptr<interfaces::IDriver> m_driver;
    QStringList m_log;
};

TEST_F(MbusDriverSecurity, ParseExplodeAndExtractDecryptWithTheRegistryKey) {
    const model::ul_message stored = parse(mode5, 1);
    EXPECT_EQ(stored.parse_status.toStdString(), "parsed");
    EXPECT_TRUE(stored.data.object().value("decrypted").toBool());
    EXPECT_EQ(values_in(m_driver->explode(stored)), 5);
    EXPECT_EQ(stored.payload, QByteArray::fromHex(mode5));  // stored as received

    model::value_query query;
    query.modem_id = {1};
    query.to = QDateTime::fromSecsSinceEpoch(detected + 10, Qt::UTC);
    model::per_modem<model::dev_value> values;
    m_driver->extract_values(values, query);
    ASSERT_EQ(values[1].size(), 5u);
    EXPECT_DOUBLE_EQ(values[1][0].value.toDouble(), 12.345);

    EXPECT_EQ(parse(published, 3).parse_status.toStdString(), "parsed");
    EXPECT_TRUE(m_log.isEmpty()) << m_log.join("\n").toStdString();
}

TEST_F(MbusDriverSecurity, AProblemIsLoggedOncePerModemAndAKeySetLaterApplies) {
    EXPECT_EQ(parse(mode5, 2).parse_status.toStdString(), "encrypted");
    EXPECT_EQ(parse(mode5, 2).parse_status.toStdString(), "encrypted");
    ASSERT_EQ(m_log.size(), 1);
    EXPECT_TRUE(m_log[0].startsWith("2 mbus: modem 2: encrypted with security mode 5"))
        << m_log[0].toStdString();

    // A wrong key is another problem: logged once more.
    model::device_record device{"proto7", "wmbus", {}, {}};
    device.meter.aes_key = QByteArray::fromHex("0f1e2d3c4b5a69788796a5b4c3d2e1f1");
    m_clients->set_device(2, device);
    EXPECT_EQ(parse(mode5, 2).parse_status.toStdString(), "decryption failed");
    EXPECT_EQ(parse(mode5, 2).parse_status.toStdString(), "decryption failed");
    ASSERT_EQ(m_log.size(), 2);
    EXPECT_NE(m_log[1].indexOf("does not begin with 2F 2F"), -1);

    // The right key applies from the next telegram on; a later problem is logged again.
    device.meter.aes_key = QByteArray::fromHex(key5);
    m_clients->set_device(2, device);
    const model::ul_message good = parse(mode5, 2);
    EXPECT_EQ(good.parse_status.toStdString(), "parsed");
    EXPECT_EQ(values_in(m_driver->explode(good)), 5);
    m_clients->set_device(2, model::device_record{"proto7", "wmbus", {}, {}});
    EXPECT_EQ(parse(mode5, 2).parse_status.toStdString(), "encrypted");
    EXPECT_EQ(m_log.size(), 3);

    const QString all = m_log.join("\n").toLower();
    EXPECT_EQ(all.indexOf(key5), -1);
    EXPECT_EQ(all.indexOf("0f1e2d3c4b5a69788796a5b4c3d2e1f1"), -1);
}

// explode() reuses the decoding of the message parsed just before it, once: a key removed
// after that applies to the next explode, and another message is decoded on its own.
TEST_F(MbusDriverSecurity, ExplodeAfterParseDecodesTheMessageItIsGiven) {
    model::device_record device{"proto7", "wmbus", {}, {}};
    device.meter.aes_key = QByteArray::fromHex(key5);
    m_clients->set_device(5, device);
    const model::ul_message decrypted = parse(mode5, 5);
    m_clients->set_device(5, model::device_record{"proto7", "wmbus", {}, {}});
    EXPECT_EQ(values_in(m_driver->explode(decrypted)), 5);
    EXPECT_EQ(values_in(m_driver->explode(decrypted)), 0);  // decoded again, without the key

    m_clients->set_device(5, device);
    const model::ul_message first = parse(mode5, 5);
    const model::ul_message other = parse(mode5, 1);  // same payload, the other modem's key
    m_clients->set_device(5, model::device_record{"proto7", "wmbus", {}, {}});
    EXPECT_EQ(values_in(m_driver->explode(first)), 0);
    const model::ul_message plain = parse(mode5, 2);  // no key: no values
    EXPECT_EQ(values_in(m_driver->explode(other)), 5);
    EXPECT_EQ(values_in(m_driver->explode(plain)), 0);
}

TEST_F(MbusDriverSecurity, ShortHeaderWithoutRegisteredAddressIsNotTried) {
    model::device_record device{"proto7", "wmbus", {}, {}};
    device.meter.aes_key = QByteArray::fromHex(published_key);
    m_clients->set_device(4, device);
    EXPECT_EQ(parse(published, 4).parse_status.toStdString(), "encrypted");
    ASSERT_EQ(m_log.size(), 1);
    EXPECT_NE(m_log[0].indexOf("\"manufacturer\", \"identification\", \"version\" and \"medium\""), -1);
}

TEST_F(MbusDriverSecurity, NoReplyOfTheDriverHoldsTheKey) {
    parse(mode5, 1);
    model::custom_query state;
    state.type = "state";
    state.modem_id = {1, 3};
    const QByteArray reply = QJsonDocument(m_driver->custom_query(state)).toJson().toLower();
    EXPECT_EQ(reply.indexOf(key5), -1);
    EXPECT_EQ(reply.indexOf(published_key), -1);
    model::per_modem<model::ul_message> roll;
    model::roll_query query;
    query.modem_id = {1};
    m_driver->extract_roll(roll, query);
    ASSERT_EQ(roll[1].size(), 1u);
    EXPECT_EQ(roll[1][0].data.toJson().toLower().indexOf(key5), -1);
}

}  // namespace
