#include "tests/plugins/test_driver/test_driver_factory.h"

#include <QJsonArray>

#include "tests/plugins/test_driver/test_driver.h"

namespace {
QString address(const void* pointer) {
    return QString::number(reinterpret_cast<quintptr>(pointer));
}
}  // namespace

QList<interfaces::protocol_instance> TestDriverFactory::supported(const QJsonObject& configuration) {
    m_configuration = configuration;
    const QString protocol = configuration.value("protocol").toString("proto7");
    const QJsonArray instances = configuration.value("instances").toArray({"marl2"});
    QList<interfaces::protocol_instance> pairs;
    for (const QJsonValue& instance : instances) {
        pairs.append({protocol, instance.toString()});
    }
    return pairs;
}

QJsonObject TestDriverFactory::describe() const {
    return {{"name", name()},
            {"serves", "the pairs of its configuration"},
            {"configuration", QJsonObject{{"protocol", "text"}, {"instances", "array of texts"}}}};
}

void TestDriverFactory::prepare(const interfaces::protocol_instance& pair,
                                std::shared_ptr<interfaces::IMessagesDatabase> messages,
                                std::shared_ptr<interfaces::IEAVDatabase> eav,
                                std::shared_ptr<interfaces::IDriverState> state,
                                std::shared_ptr<interfaces::IDeviceClientsDatabase> clients) {
    m_prepared = {
        {"protocol", pair.first},    {"instance", pair.second},       {"messages", address(messages.get())},
        {"eav", address(eav.get())}, {"state", address(state.get())}, {"clients", address(clients.get())}};
}

std::shared_ptr<interfaces::IDriver> TestDriverFactory::create(
    const interfaces::protocol_instance& pair, std::shared_ptr<interfaces::IMessagesDatabase> messages,
    std::shared_ptr<interfaces::IEAVDatabase> eav, std::shared_ptr<interfaces::IDriverState> state,
    interfaces::dl_sender send_dl, int ttl_seconds, int position) {
    const QJsonObject report{{"protocol", pair.first},
                             {"instance", pair.second},
                             {"configuration", m_configuration},
                             {"prepared", m_prepared},
                             {"messages", address(messages.get())},
                             {"eav", address(eav.get())},
                             {"state", address(state.get())},
                             {"ttl", ttl_seconds},
                             {"position", position}};
    return std::make_shared<test_driver>(report, std::move(send_dl));
}
