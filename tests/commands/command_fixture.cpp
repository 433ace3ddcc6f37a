#include "command_fixture.h"

#include <gtest/gtest.h>
#include <QFile>
#include <QJsonDocument>

namespace command_test {

QJsonObject FakeEngine::sendDlmessage(const model::dl_message& message) {
    if (refused.count(message.modem_id)) {
        throw downlink_refused("mbus downlink: \"address\" must be 0 to 250");
    }
    if (store_down) {
        throw std::runtime_error("database is locked");
    }
    sent.push_back(message);
    model::dl_message stored = message;
    m_messages->dl().save(stored);
    return QJsonObject{{"ok", true}, {"bd_id", stored.db_id}};
}

model::per_modem<model::dl_message> RecordingDownlinks::list(const model::dl_query& query) {
    queries.push_back(query);
    not_acked.push_back(false);
    return m_real.list(query);
}

model::per_modem<model::dl_message> RecordingDownlinks::list_not_acked(const model::dl_query& query) {
    queries.push_back(query);
    not_acked.push_back(true);
    return m_real.list_not_acked(query);
}

namespace {

const QByteArray registry = R"({"devices": {
    "1": {"protocol": "proto7", "hw_type": "marl2"},
    "2": {"protocol": "proto7", "hw_type": "marl2"},
    "3": {"protocol": "proto7", "hw_type": "marl2"},
    "10": {"protocol": "proto7", "hw_type": "MARL3"},
    "9": {"protocol": "other", "hw_type": "marl2"}
}})";

}  // namespace

CommandFixture::CommandFixture() {
    const QString plugin = QString(QUILLON_BIN_DIR) + "/plug_db_driver_dummy.so";
    EXPECT_TRUE(QFile::copy(plugin, m_dir.filePath("plug_db_driver_dummy.so"))) << plugin.toStdString();
    write_file("plug_db_driver_dummy.json", registry);
    m_log = std::make_unique<logger>(m_dir.filePath("commands.log"), Debug, "commands");

    PMConfig pm;
    pm.db_name = "db_driver_dummy";
    pm.protocol = "proto7";
    pm.instance_names = QStringList{"marl2"};
    pm.plugin_path = pm.plugin_config_path = pm.plugin_db_config_path = m_dir.path();
    m_plugins = std::make_unique<PluginsManager>(pm, *m_log);

    driver = std::make_shared<fake_driver>();
    driver->m_pattern = "marl\\d";
    messages = std::make_shared<RecordingMessages>(m_plugins->messages_database());
    engine = std::make_unique<FakeEngine>(messages);

    context = std::make_shared<command_context>();
    context->log = m_log.get();
    context->pm_config = pm;
    context->engine_config.start_time = 1700000000;
    context->messages = messages;
    context->eav = m_plugins->eav_database();
    context->state = m_plugins->state_database();
    context->clients = m_plugins->clients_database();
    context->driver = driver;
    context->acceptance = std::make_shared<const driver_acceptance>(*driver);
    context->engine = engine.get();
    factory = make_command_factory(context);
}

CommandFixture::~CommandFixture() = default;

QJsonObject CommandFixture::run(const QString& name, const QJsonObject& body) {
    return run(name, QJsonDocument(body));
}

QJsonObject CommandFixture::run(const QString& name, const QJsonDocument& data) {
    return factory(name)->execute(command(name, data));
}

std::shared_ptr<ICommandHandler> CommandFixture::handler(const QString& name) {
    return factory(name);
}

QString CommandFixture::log_text() const {
    QFile file(m_dir.filePath("commands.log"));
    file.open(QIODevice::ReadOnly);
    return QString::fromUtf8(file.readAll());
}

void CommandFixture::write_file(const QString& name, const QByteArray& text) const {
    QFile file(m_dir.filePath(name));
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    file.write(text);
}

api_message command(const QString& name, const QJsonDocument& data) {
    api_message message;
    message.msg_type = name;
    message.sender = "test.reply";
    message.data = data;
    return message;
}

}  // namespace command_test
