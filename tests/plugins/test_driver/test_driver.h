#pragma once

#include <QJsonObject>

#include "interfaces/factories.h"
#include "tests/support/fake_driver.h"

// The tests' fake driver as a plugin: it serves the protocol it was created for and every
// hardware type, keeps a downlink's status as it is, and custom_query() reports how it
// was created and sends one downlink through the function it was given.
class test_driver : public fake_driver {
public:
    test_driver(QJsonObject report, interfaces::dl_sender send_dl)
        : m_report(std::move(report)), m_send_dl(std::move(send_dl)) {
        m_type = m_report.value("protocol").toString();
        m_pattern = ".*";
    }

    int new_dl_status(const controller_event&, const model::dl_message& message) override {
        return message.dl_status;
    }
    QJsonObject custom_query(const model::custom_query& query) override;

private:
    QJsonObject m_report;
    interfaces::dl_sender m_send_dl;
};
