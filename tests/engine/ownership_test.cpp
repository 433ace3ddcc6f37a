#include <gtest/gtest.h>

#include <limits>
#include <map>
#include <memory>

#include "engine/ownership.h"

namespace {
constexpr int int_min = std::numeric_limits<int>::min();
constexpr int int_max = std::numeric_limits<int>::max();

using device_pair = std::pair<QString, QString>;

// The registry part of the clients store: (protocol, hw_type) per modem.
class registry : public interfaces::IDeviceClientsDatabase, public interfaces::IClientStore {
public:
    explicit registry(std::map<int, device_pair> known) : m_known(std::move(known)) {}
    QStringList clients(int) override { return {}; }
    std::pair<QString, QString> device(int modem_id) override {
        ++asked;
        const auto it = m_known.find(modem_id);
        return it == m_known.end() ? device_pair() : it->second;
    }
    void set_device(int, const model::device_record&) override {}
    bool remove_device(int) override { return false; }
    std::map<int, model::device_record> devices() override { return {}; }
    QString backend() const override { return "registry"; }
    interfaces::IClientStore& clients_store() override { return *this; }

    int asked = 0;

private:
    std::map<int, device_pair> m_known;
};

// The last stored uplink of each modem, as the uplink store tells it.
class last_uplinks : public interfaces::IMessagesDatabase, public interfaces::IUplinkStore {
public:
    explicit last_uplinks(std::map<int, device_pair> known) : m_known(std::move(known)) {}
    void save(const model::ul_message&) override {}
    void get_roll(model::per_modem<model::ul_message>&, const model::roll_query&) override {}
    QList<int> modems() override { return {}; }
    void device(std::pair<QString, QString>& out, int modem_id) override {
        ++asked;
        const auto it = m_known.find(modem_id);
        out = it == m_known.end() ? device_pair() : it->second;
    }
    QString backend() const override { return "uplinks"; }
    int purge_expired(int) override { return 0; }
    qint64 uplink_count() override { return 0; }
    qint64 downlink_count() override { return 0; }
    interfaces::IUplinkStore& ul() override { return *this; }
    interfaces::IDownlinkStore& dl() override { throw std::logic_error("no downlinks here"); }

    int asked = 0;

private:
    std::map<int, device_pair> m_known;
};
}  // namespace

// The signed remainder of the modem id by the instance count, worked out by hand; it is
// defined for every pair of ints, including the one whose quotient overflows.
TEST(InstanceOwnership, SignedRemainderForEveryInt) {
    EXPECT_TRUE(ownership::instance_matches(7, 3, 1));
    EXPECT_TRUE(ownership::instance_matches(-7, 3, -1));  // the remainder takes the id's sign
    EXPECT_FALSE(ownership::instance_matches(-7, 3, 2));
    EXPECT_TRUE(ownership::instance_matches(int_min, -1, 0));  // the quotient 2^31 does not fit
    EXPECT_TRUE(ownership::instance_matches(int_min, 1, 0));
    EXPECT_TRUE(ownership::instance_matches(int_min, 3, -2));  // -2147483648 = 3 * -715827882 - 2
    EXPECT_TRUE(ownership::instance_matches(int_max, int_min, int_max));
    EXPECT_TRUE(ownership::instance_matches(int_min, int_min, 0));
    EXPECT_TRUE(ownership::instance_matches(int_max, int_max, 0));
    EXPECT_FALSE(ownership::instance_matches(5, 0, 0));  // no instance owns anything
}

// The driver's acceptance rule, with expectations worked out from its definition: the
// protocol compared exactly, the hardware pattern matched against the whole text,
// ignoring case.
TEST(DriverAcceptance, ProtocolIsExactAndHardwareTypeMatchesAsAWholeIgnoringCase) {
    const driver_acceptance rule("mbus", "marl\\d");
    EXPECT_TRUE(rule.accepts("mbus", "marl3"));
    EXPECT_TRUE(rule.accepts("mbus", "MARL3"));   // the pattern ignores case ...
    EXPECT_FALSE(rule.accepts("MBUS", "marl3"));  // ... the protocol does not
    EXPECT_FALSE(rule.accepts("mbus ", "marl3"));
    EXPECT_FALSE(rule.accepts("", "marl3"));
    // Anchored at both ends: a match of a part of the text is no match.
    EXPECT_FALSE(rule.accepts("mbus", "marl33"));
    EXPECT_FALSE(rule.accepts("mbus", "xmarl3"));
    EXPECT_FALSE(rule.accepts("mbus", "marl"));
    EXPECT_FALSE(rule.accepts("mbus", ""));
    EXPECT_TRUE(rule.accepts_hw_type("Marl0"));
    EXPECT_FALSE(rule.accepts_protocol("mbus2"));
}

TEST(DriverAcceptance, PatternsThatMatchAPrefixOrNothing) {
    // Alternatives: the first alternative matches a prefix of "ab", only the second the whole.
    const driver_acceptance alternatives("p", "a|ab");
    EXPECT_TRUE(alternatives.accepts("p", "ab"));
    EXPECT_TRUE(alternatives.accepts("p", "A"));
    EXPECT_FALSE(alternatives.accepts("p", "abc"));
    // A pattern that matches only a prefix of every real type accepts none of them.
    const driver_acceptance prefix("p", "wm");
    EXPECT_FALSE(prefix.accepts("p", "wmbus"));
    EXPECT_TRUE(prefix.accepts("p", "WM"));
    // An empty hardware type passes only a pattern that allows the empty text.
    EXPECT_TRUE(driver_acceptance("p", ".*").accepts("p", ""));
    EXPECT_TRUE(driver_acceptance("p", "").accepts("p", ""));
    EXPECT_FALSE(driver_acceptance("p", "").accepts("p", "x"));
    EXPECT_FALSE(driver_acceptance("p", "x+").accepts("p", ""));
    // An invalid pattern accepts nothing.
    EXPECT_FALSE(driver_acceptance("p", "(").accepts("p", "("));
}

TEST(DriverAcceptance, IsCompiledOnceAndUsedAgainAndAgain) {
    // The same rule object answers many calls alike, whatever was asked before.
    const driver_acceptance rule("mbus", "(wm|m)bus\\d{2}");
    for (int round = 0; round < 3; ++round) {
        EXPECT_TRUE(rule.accepts("mbus", "WMBUS17"));
        EXPECT_FALSE(rule.accepts("mbus", "wmbus1"));
        EXPECT_TRUE(rule.accepts("mbus", "mbus00"));
    }
}

TEST(Ownership, WithoutARuleOrWithCheckingOffNoStoreIsAsked) {
    // Checking off: every modem passes, and no store is needed to say so.
    EXPECT_TRUE(ownership(nullptr, nullptr, nullptr, false).is_mine(5));
    // Checking on without a rule: nothing is mine.
    EXPECT_FALSE(ownership(nullptr, nullptr, nullptr, true).is_mine(5));
    // No store at all: the device is unknown (two empty texts), which only a pattern
    // accepting the empty text with an empty protocol would take.
    auto rule = std::make_shared<const driver_acceptance>("", "");
    EXPECT_TRUE(ownership(rule, nullptr, nullptr, true).is_mine(5));
    EXPECT_EQ(ownership::device_of(5, nullptr, nullptr), (std::pair<QString, QString>()));
}

// The registry first; the last stored uplink only when the registry lacks either text.
TEST(Ownership, DeviceComesFromTheRegistryThenFromTheLastUplink) {
    auto clients = std::make_shared<registry>(std::map<int, device_pair>{
        {1, {"proto7", "MARL3"}}, {2, {"proto7", ""}}, {3, {"", "marl1"}}, {4, {"other", "MARL3"}}});
    auto messages = std::make_shared<last_uplinks>(std::map<int, device_pair>{
        {1, {"x", "y"}}, {2, {"proto7", "marl2"}}, {3, {"zz", "marl9"}}, {5, {"proto7", "marl5"}}});
    const ownership owner(std::make_shared<const driver_acceptance>("proto7", "marl\\d"), clients, messages,
                          true);

    EXPECT_EQ(owner.device_of(1), device_pair("proto7", "MARL3"));
    EXPECT_EQ(messages->asked, 0);  // both texts known: the uplinks are not read
    EXPECT_EQ(owner.device_of(2), device_pair("proto7", "marl2"));
    EXPECT_EQ(owner.device_of(3), device_pair("zz", "marl9"));
    EXPECT_EQ(owner.device_of(5), device_pair("proto7", "marl5"));
    EXPECT_EQ(owner.device_of(6), device_pair());
    EXPECT_EQ(messages->asked, 4);

    EXPECT_TRUE(owner.is_mine(1));
    EXPECT_TRUE(owner.is_mine(2));
    EXPECT_FALSE(owner.is_mine(3));  // the uplink's protocol "zz" decides
    EXPECT_FALSE(owner.is_mine(4));
    EXPECT_TRUE(owner.is_mine(5));
    EXPECT_FALSE(owner.is_mine(6));

    // The same lookup for callers that hold the stores themselves (downlink sending).
    EXPECT_EQ(ownership::device_of(2, clients.get(), messages.get()), device_pair("proto7", "marl2"));
    EXPECT_EQ(ownership::device_of(2, clients.get(), nullptr), device_pair("proto7", ""));
    EXPECT_EQ(ownership::device_of(2, nullptr, messages.get()), device_pair("proto7", "marl2"));
}
