// The quillon process with amqps:// URLs and R_CA_CERT in its AMQP groups, against the
// test broker's TLS listener; the test talks to it as a client over the plain listener.
#include <gtest/gtest.h>

#include <QJsonObject>

#include "tests/support/service_harness.h"
#include "tls_test_support.h"

namespace {

class tls_service : public ::testing::Test {
protected:
    void SetUp() override {
        if (tls_test::tls_switched_off()) {
            GTEST_SKIP() << "the test broker runs without its TLS listener (QUILLON_TEST_BROKER_TLS=0)";
        }
        m_url = tls_test::broker_tls_url();
        m_ca = tls_test::broker_ca_file();
        ASSERT_TRUE(m_url.startsWith("amqps://")) << "scripts/test-broker tls-url gave no amqps URL";
        m_log = std::make_unique<logger>(m_dir.filePath("test.log"), Debug, "test");
    }

    // Every AMQP group of the service on the TLS listener, verified against `ca`; the client
    // publisher's group against `client_ca`.
    void configure(e2e::service_process& service, const QString& client_ca) {
        for (const char* group : {"AMQP_UL_SETTINGS", "AMQP_API_SETTINGS", "AMQP_UL_CLIENT_SETTINGS"}) {
            service.set(group, "R_LOGIN", m_url);
            service.set(group, "R_CA_CERT", m_ca);
        }
        service.set("AMQP_UL_CLIENT_SETTINGS", "R_CA_CERT", client_ca);
    }

    // Sends get_info as a client does and returns the response (empty when none came).
    QJsonObject get_info(e2e::service_process& service) {
        const QString reply_key = e2e::unique_name("reply");
        e2e::probe replies({reply_key});
        e2e::sender sender(*m_log);
        if (!replies.wait_ready() || !sender.wait_ready()) {
            ADD_FAILURE() << "the client side did not connect";
            return {};
        }
        sender.publish(service.command_key(), e2e::command("get_info", {}, reply_key));
        if (!replies.wait_for(1)) {
            ADD_FAILURE() << "no response\n" << service.log().right(3000).toStdString();
            return {};
        }
        return replies.messages().front().json();
    }

    QString connected_line() const {
        // The URL as the log shows it, password masked.
        return "amqp: connected to " + QString(m_url).replace("guest:guest@", "guest:****@") + ",";
    }

    QString m_url;
    QString m_ca;
    QTemporaryDir m_dir;
    std::unique_ptr<logger> m_log;
};

}  // namespace

TEST_F(tls_service, serves_get_info_with_every_link_on_amqps_and_the_broker_verified) {
    e2e::service_process service;
    configure(service, m_ca);
    ASSERT_TRUE(service.start()) << service.log().toStdString();

    const QJsonObject response = get_info(service);
    EXPECT_EQ(response.value("msg_type").toString(), "response");
    EXPECT_TRUE(response.value("data").toObject().contains("proto7:marl2")) << service.log().toStdString();

    // Uplink queue, client publisher, command queue and command publisher.
    EXPECT_TRUE(e2e::wait_until([&] { return service.log().count(connected_line()) == 4; }))
        << service.log().toStdString();
    EXPECT_EQ(service.log().count("amqp: connected to amqp://"), 0);
    EXPECT_EQ(service.log().count(" failed: "), 0) << service.log().toStdString();
    EXPECT_EQ(service.stop(), 0);
}

TEST_F(tls_service, a_foreign_ca_in_one_group_fails_that_link_alone) {
    tls_test::foreign_ca other;
    ASSERT_TRUE(other.valid()) << "openssl could not make a CA";
    e2e::service_process service;
    configure(service, other.file());
    ASSERT_TRUE(service.start()) << service.log().toStdString();

    const QString failure =
        "amqp: connection to " + QString(m_url).replace("guest:guest@", "guest:****@") + " failed: ";
    EXPECT_TRUE(e2e::wait_until([&] { return service.log().count(failure) >= 1; }))
        << service.log().toStdString();
    // The command API does not depend on the client publisher.
    const QJsonObject response = get_info(service);
    EXPECT_EQ(response.value("msg_type").toString(), "response");
    EXPECT_EQ(service.log().count(connected_line()), 3) << service.log().toStdString();
    EXPECT_EQ(service.log().count("guest:guest"), 0) << "password in the log";
    EXPECT_EQ(service.stop(), 0);
}
