#pragma once

// Test fixture of the history, re-publication, settings and reparse commands: the
// in-memory database plugin for the stores (queries recorded on the way), a fake
// driver and fake engine services that record what they are asked.

#include <QJsonObject>
#include <QJsonValue>
#include <QList>
#include <QString>
#include <QStringList>
#include <QTemporaryDir>
#include <map>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

#include "amqp/api_message.h"
#include "commands/command_context.h"
#include "engine/engine_services.h"
#include "interfaces/IDeviceClientsDatabase.h"
#include "interfaces/IDriverState.h"
#include "interfaces/IEAVDatabase.h"
#include "interfaces/IMessagesDatabase.h"
#include "plugins/PluginsManager.h"
#include "tests/support/fake_driver.h"

namespace history_fakes {

// The protocol and hardware type the fake driver serves.
inline const QString protocol = QStringLiteral("proto7");
inline const QString hw_type = QStringLiteral("marl2");

// The fake driver, serving `protocol` and the hardware types matching "marl\d".
inline std::shared_ptr<fake_driver> served_driver() {
    auto driver = std::make_shared<fake_driver>();
    driver->m_type = protocol;
    driver->m_pattern = QStringLiteral("marl\\d");
    return driver;
}

// One call of publish_record or publish_roll.
struct publication {
    int stored_modem_id = 0;
    QString stored_hw_type;
    std::optional<model::eav_record> record;  // empty for a roll
    std::optional<model::ul_message> roll;
    QString client;
    int index = 0;
    bool wrap = false;
};

struct sent_command {
    QString type;
    QJsonObject data;
    QString routing_key;
};

class FakeEngine : public IEngineServices {
public:
    QJsonObject sendDlmessage(const model::dl_message&) override { return {}; }
    void publish_record(const model::ul_message& stored, const model::eav_record& record,
                        const QString& client, int index, bool wrap) override {
        publications.push_back({stored.modem_id, stored.hw_type, record, std::nullopt, client, index, wrap});
    }
    void publish_roll(const model::ul_message& message, const QString& client, int index,
                      bool wrap) override {
        publications.push_back(
            {message.modem_id, message.hw_type, std::nullopt, message, client, index, wrap});
    }
    void send_command(const QString& type, const QJsonObject& data, const QString& routing_key) override {
        commands.push_back({type, data, routing_key});
    }

    std::vector<publication> publications;
    std::vector<sent_command> commands;
};

// Forwards to the real uplink store and remembers every roll query.
class RecordingUplinks : public interfaces::IUplinkStore {
public:
    explicit RecordingUplinks(interfaces::IUplinkStore& real) : m_real(real) {}
    void save(const model::ul_message& message) override { m_real.save(message); }
    void get_roll(model::per_modem<model::ul_message>& out, const model::roll_query& query) override {
        queries.push_back(query);
        m_real.get_roll(out, query);
    }
    QList<int> modems() override { return m_real.modems(); }
    void device(std::pair<QString, QString>& out, int modem_id) override { m_real.device(out, modem_id); }

    std::vector<model::roll_query> queries;

private:
    interfaces::IUplinkStore& m_real;
};

class RecordingMessages : public interfaces::IMessagesDatabase {
public:
    explicit RecordingMessages(std::shared_ptr<interfaces::IMessagesDatabase> real)
        : m_real(std::move(real)), uplinks(m_real->ul()) {}
    QString backend() const override { return m_real->backend(); }
    int purge_expired(int max_rows) override { return m_real->purge_expired(max_rows); }
    qint64 uplink_count() override { return m_real->uplink_count(); }
    qint64 downlink_count() override { return m_real->downlink_count(); }
    interfaces::IUplinkStore& ul() override { return uplinks; }
    interfaces::IDownlinkStore& dl() override { return m_real->dl(); }

private:
    std::shared_ptr<interfaces::IMessagesDatabase> m_real;

public:
    RecordingUplinks uplinks;
};

// Forwards to the real value and event store and remembers every query.
class RecordingRecords : public interfaces::IRecordStore {
public:
    explicit RecordingRecords(interfaces::IRecordStore& real) : m_real(real) {}
    void save_values(const QList<model::dev_value>& values) override { m_real.save_values(values); }
    void save_events(const QList<model::dev_event>& events) override { m_real.save_events(events); }
    void get_values(model::per_modem<model::dev_value>& out, const model::value_query& query) override {
        queries.push_back(query);
        m_real.get_values(out, query);
    }
    void get_events(model::per_modem<model::dev_event>& out, const model::value_query& query) override {
        queries.push_back(query);
        m_real.get_events(out, query);
    }

    std::vector<model::value_query> queries;

private:
    interfaces::IRecordStore& m_real;
};

class RecordingEAV : public interfaces::IEAVDatabase {
public:
    explicit RecordingEAV(std::shared_ptr<interfaces::IEAVDatabase> real)
        : m_real(std::move(real)), records_store(m_real->records()) {}
    QString backend() const override { return m_real->backend(); }
    int purge_expired(int max_rows) override { return m_real->purge_expired(max_rows); }
    qint64 value_count() override { return m_real->value_count(); }
    qint64 event_count() override { return m_real->event_count(); }
    interfaces::IRecordStore& records() override { return records_store; }

private:
    std::shared_ptr<interfaces::IEAVDatabase> m_real;

public:
    RecordingRecords records_store;
};

// A command context over the in-memory database plugin (loaded through the plugin
// manager from a private directory), the fake driver and the fake engine. Modems
// registered with `own` belong to the fake driver, those registered with `foreign` to
// another protocol.
class fixture {
    // Declared first so that the plugin manager outlives every store pointer below.
    std::unique_ptr<QTemporaryDir> m_dir;
    std::unique_ptr<logger> m_log;
    std::unique_ptr<PluginsManager> m_plugins;

public:
    fixture();
    ~fixture();

    void own(int modem_id, const QStringList& client_ids = {});
    void foreign(int modem_id);

    void store_roll(const std::vector<model::ul_message>& messages);
    void store_values(const std::vector<model::dev_value>& values);
    void store_events(const std::vector<model::dev_event>& events);

    std::shared_ptr<fake_driver> driver = served_driver();
    FakeEngine engine;
    std::shared_ptr<RecordingMessages> messages;
    std::shared_ptr<RecordingEAV> eav;
    std::shared_ptr<interfaces::IDriverState> state;
    std::shared_ptr<interfaces::IDeviceClientsDatabase> clients;
    std::shared_ptr<command_context> context;
};

// A command whose body is `body`.
inline api_message command(const QJsonObject& body) {
    api_message message;
    message.data = QJsonDocument(body);
    return message;
}

}  // namespace history_fakes
