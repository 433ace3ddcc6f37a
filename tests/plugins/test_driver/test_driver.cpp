#include "tests/plugins/test_driver/test_driver.h"

QJsonObject test_driver::custom_query(const model::custom_query&) {
    QJsonObject report = m_report;
    if (m_send_dl) {
        model::dl_message message;
        message.modem_id = 5;
        report.insert("sent", m_send_dl(message));
    }
    return report;
}
