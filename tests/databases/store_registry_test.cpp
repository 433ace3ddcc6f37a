#include <algorithm>

#include "tests/databases/store_fixture.h"

namespace {

QList<int> sorted(QList<int> ids) {
    std::sort(ids.begin(), ids.end());
    return ids;
}

}  // namespace

TEST_P(StoreSuite, RegistryStartsWithTheSeedOfTheConfiguration) {
    const model::device_record seeded{"proto7", "X", {"c1", "c2"}};
    EXPECT_EQ(clients->devices(), (std::map<int, model::device_record>{{77, seeded}}));
    EXPECT_EQ(clients->clients_store().clients(77), (QStringList{"c1", "c2"}));
    EXPECT_EQ(clients->clients_store().device(77), (std::pair<QString, QString>{"proto7", "X"}));
    EXPECT_TRUE(clients->clients_store().clients(78).isEmpty());
    EXPECT_EQ(clients->clients_store().device(78), (std::pair<QString, QString>{}));
}

TEST_P(StoreSuite, RegistrySetReplaceAndRemove) {
    clients->set_device(5, {"proto9", "Y", {}});
    clients->set_device(6, {"proto7", "Z", {"c3"}});
    clients->set_device(5, {"proto8", "W", {"c4", "c5"}});
    const auto devices = clients->devices();
    ASSERT_EQ(devices.size(), 3u);
    EXPECT_EQ(devices.at(5), (model::device_record{"proto8", "W", {"c4", "c5"}}));
    EXPECT_EQ(clients->clients_store().clients(5), (QStringList{"c4", "c5"}));
    EXPECT_EQ(clients->clients_store().device(6), (std::pair<QString, QString>{"proto7", "Z"}));

    EXPECT_TRUE(clients->remove_device(5));
    EXPECT_FALSE(clients->remove_device(5));
    EXPECT_EQ(clients->devices().count(5), 0u);
    EXPECT_TRUE(clients->clients_store().clients(5).isEmpty());
    EXPECT_EQ(clients->clients_store().device(5), (std::pair<QString, QString>{}));
}

TEST_P(StoreSuite, IdsByHardwareTypeAndProtocolWithWildcards) {
    clients->set_device(1, {"proto7", "A", {}});
    clients->set_device(2, {"proto7", "B", {}});
    clients->set_device(3, {"proto9", "A", {}});
    // 77 is the seeded (proto7, X).
    EXPECT_EQ(sorted(state->ids("A", "proto7")), (QList<int>{1}));
    EXPECT_EQ(sorted(state->ids("*", "proto7")), (QList<int>{1, 2, 77}));
    EXPECT_EQ(sorted(state->ids("A", "*")), (QList<int>{1, 3}));
    EXPECT_EQ(sorted(state->ids("*", "*")), (QList<int>{1, 2, 3, 77}));
    EXPECT_TRUE(state->ids("Z", "*").isEmpty());
    EXPECT_TRUE(state->ids("A", "proto8").isEmpty());
}

// An encrypted meter's address and key are kept with the device, replaced with it and
// read back alone for the driver; a device without them reads back empty.
TEST_P(StoreSuite, RegistryKeepsTheMeterLinkAndItsKey) {
    model::device_record meter{"proto7", "wmbus", {"c1"}, {}};
    meter.meter.manufacturer = "AMB";
    meter.meter.identification = "12345678";
    meter.meter.version = 0;
    meter.meter.medium = 3;
    meter.meter.aes_key = QByteArray::fromHex("000102030405060708090a0b0c0d0e0f");
    clients->set_device(9, meter);
    EXPECT_EQ(clients->devices().at(9), meter);
    EXPECT_EQ(clients->meter_link(9), meter.meter);
    EXPECT_EQ(clients->meter_link(9).aes_key.size(), 16);

    // A key alone (long-header meters need no address); version 0 is not "unset".
    model::device_record key_only{"proto7", "wmbus", {}, {}};
    key_only.meter.aes_key = QByteArray::fromHex("ffeeddccbbaa99887766554433221100");
    clients->set_device(9, key_only);
    EXPECT_EQ(clients->meter_link(9), key_only.meter);
    EXPECT_TRUE(clients->meter_link(9).manufacturer.isEmpty());
    EXPECT_EQ(clients->meter_link(9).version, -1);

    EXPECT_TRUE(clients->meter_link(77).empty());     // the seed has none
    EXPECT_TRUE(clients->meter_link(12345).empty());  // unknown modem
    EXPECT_TRUE(clients->remove_device(9));
    EXPECT_TRUE(clients->meter_link(9).empty());
}
