#pragma once

// The command handlers under test run against the in-memory database plugin, loaded
// through the plugin manager from a private directory, with a fake protocol driver and
// fake engine services that record what they are asked.

#include <QJsonObject>
#include <QTemporaryDir>
#include <memory>
#include <set>
#include <vector>

#include "amqp/api_message.h"
#include "commands/command_context.h"
#include "commands/command_factory.h"
#include "engine/engine_services.h"
#include "interfaces/IMessagesDatabase.h"
#include "plugins/PluginsManager.h"
#include "tests/support/fake_driver.h"

namespace command_test {

// Stores each downlink through the real store, as the engine's sending does, and
// answers with the stored id.
class FakeEngine : public IEngineServices {
public:
    explicit FakeEngine(std::shared_ptr<interfaces::IMessagesDatabase> messages) : m_messages(messages) {}
    QJsonObject sendDlmessage(const model::dl_message& message) override;
    void publish_record(const model::ul_message&, const model::eav_record&, const QString&, int,
                        bool) override {}
    void publish_roll(const model::ul_message&, const QString&, int, bool) override {}
    void send_command(const QString&, const QJsonObject&, const QString&) override {}

    std::vector<model::dl_message> sent;
    // Modems whose downlink the driver cannot build.
    std::set<int> refused;
    // The store fails on every save.
    bool store_down = false;

private:
    std::shared_ptr<interfaces::IMessagesDatabase> m_messages;
};

// Forwards to the real downlink store and remembers every listing query.
class RecordingDownlinks : public interfaces::IDownlinkStore {
public:
    explicit RecordingDownlinks(interfaces::IDownlinkStore& real) : m_real(real) {}
    void save(model::dl_message& message) override { m_real.save(message); }
    model::dl_message get(const QString& db_id) override { return m_real.get(db_id); }
    model::per_modem<model::dl_message> list(const model::dl_query& query) override;
    model::per_modem<model::dl_message> list_not_acked(const model::dl_query& query) override;
    void set_status(const QString& db_id, int status) override { m_real.set_status(db_id, status); }

    std::vector<model::dl_query> queries;
    std::vector<bool> not_acked;

private:
    interfaces::IDownlinkStore& m_real;
};

class RecordingMessages : public interfaces::IMessagesDatabase {
public:
    explicit RecordingMessages(std::shared_ptr<interfaces::IMessagesDatabase> real)
        : m_real(real), m_downlinks(real->dl()) {}
    QString backend() const override { return m_real->backend(); }
    int purge_expired(int max_rows) override { return m_real->purge_expired(max_rows); }
    qint64 uplink_count() override { return m_real->uplink_count(); }
    qint64 downlink_count() override { return m_real->downlink_count(); }
    interfaces::IUplinkStore& ul() override { return m_real->ul(); }
    interfaces::IDownlinkStore& dl() override { return m_downlinks; }

    RecordingDownlinks& downlinks() { return m_downlinks; }

private:
    std::shared_ptr<interfaces::IMessagesDatabase> m_real;
    RecordingDownlinks m_downlinks;
};

// Registry: modems 1, 2, 3 and 10 (hw "MARL3") are served by the fake driver; 9 is of
// another protocol and 4 is unknown.
class CommandFixture {
public:
    CommandFixture();
    ~CommandFixture();

    QJsonObject run(const QString& command, const QJsonObject& body);
    QJsonObject run(const QString& command, const QJsonDocument& data);
    std::shared_ptr<ICommandHandler> handler(const QString& command);

    QString directory() const { return m_dir.path(); }
    QString log_text() const;
    void write_file(const QString& name, const QByteArray& text) const;

    std::shared_ptr<command_context> context;
    // Serves protocol "proto7" and hardware types matching "marl\d", ignoring case.
    std::shared_ptr<fake_driver> driver;
    std::shared_ptr<RecordingMessages> messages;
    std::unique_ptr<FakeEngine> engine;
    command_factory factory;

private:
    QTemporaryDir m_dir;
    std::unique_ptr<logger> m_log;
    std::unique_ptr<PluginsManager> m_plugins;
};

api_message command(const QString& name, const QJsonDocument& data);

}  // namespace command_test
