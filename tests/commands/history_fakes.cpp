#include "history_fakes.h"

#include <gtest/gtest.h>
#include <QFile>

namespace history_fakes {

fixture::fixture() : m_dir(std::make_unique<QTemporaryDir>()) {
    const QString plugin = QString(QUILLON_BIN_DIR) + "/plug_db_driver_dummy.so";
    EXPECT_TRUE(QFile::copy(plugin, m_dir->filePath("plug_db_driver_dummy.so"))) << plugin.toStdString();
    m_log = std::make_unique<logger>(m_dir->filePath("commands.log"), Debug, "commands");

    PMConfig pm;
    pm.db_name = "db_driver_dummy";
    pm.plugin_path = pm.plugin_config_path = pm.plugin_db_config_path = m_dir->path();
    m_plugins = std::make_unique<PluginsManager>(pm, *m_log);

    messages = std::make_shared<RecordingMessages>(m_plugins->messages_database());
    eav = std::make_shared<RecordingEAV>(m_plugins->eav_database());
    state = m_plugins->state_database();
    clients = m_plugins->clients_database();

    context = std::make_shared<command_context>();
    context->log = m_log.get();
    context->pm_config = pm;
    context->driver = driver;
    context->acceptance = std::make_shared<const driver_acceptance>(*driver);
    context->clients = clients;
    context->messages = messages;
    context->eav = eav;
    context->state = state;
    context->engine = &engine;
    context->api_config.api_key = "key-1";
    context->history_routing_key_prefix = "history.quillon.0";
}

fixture::~fixture() = default;

void fixture::own(int modem_id, const QStringList& client_ids) {
    clients->set_device(modem_id, model::device_record{protocol, hw_type, client_ids});
}

void fixture::foreign(int modem_id) {
    clients->set_device(modem_id, model::device_record{"other", hw_type, {}});
}

void fixture::store_roll(const std::vector<model::ul_message>& list) {
    for (const model::ul_message& message : list) {
        messages->ul().save(message);
    }
}

void fixture::store_values(const std::vector<model::dev_value>& values) {
    eav->records().save_values(QList<model::dev_value>(values.begin(), values.end()));
}

void fixture::store_events(const std::vector<model::dev_event>& events) {
    eav->records().save_events(QList<model::dev_event>(events.begin(), events.end()));
}

}  // namespace history_fakes
